// SPDX-License-Identifier: Apache-2.0
// The application's view of one invoke: up to four parameters, each a value or a window on the
// caller's own memory (shared, never copied).
#pragma once

#include "tee_client_api.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace karst::emu {

// Parameter kinds as the application sees them, whatever the caller's encoding (temporary,
// whole or partial memory reference).
enum class Kind : uint32_t {
    none = TEEC_NONE,
    value_in = TEEC_VALUE_INPUT,
    value_out = TEEC_VALUE_OUTPUT,
    value_inout = TEEC_VALUE_INOUT,
    mem_in = TEEC_MEMREF_TEMP_INPUT,
    mem_out = TEEC_MEMREF_TEMP_OUTPUT,
    mem_inout = TEEC_MEMREF_TEMP_INOUT,
};

struct Param {
    Kind kind = Kind::none;
    TEEC_Value value{};
    std::span<uint8_t> memory;
    // The size reported back for output memory: what the application wrote, or what it needs
    // when the memory is too small. Starts as the memory's size.
    size_t reported = 0;

    bool is_input() const { return kind == Kind::mem_in || kind == Kind::mem_inout; }
    bool is_output() const { return kind == Kind::mem_out || kind == Kind::mem_inout; }

    // Input memory as text: up to the first zero byte. Empty optional-like: returns false when
    // the memory holds no terminating zero.
    bool text(std::string &out) const {
        const void *nul = std::memchr(memory.data(), 0, memory.size());
        if (nul == nullptr) {
            return false;
        }
        out.assign(reinterpret_cast<const char *>(memory.data()),
                   static_cast<const uint8_t *>(nul) - memory.data());
        return true;
    }

    // Writes an answer into output memory; a too small memory gets nothing and learns the size.
    TEEC_Result put(const void *data, size_t size) {
        reported = size;
        if (size > memory.size()) {
            return TEEC_ERROR_SHORT_BUFFER;
        }
        if (size > 0) {
            std::memcpy(memory.data(), data, size);
        }
        return TEEC_SUCCESS;
    }
    TEEC_Result put(std::string_view s) { return put(s.data(), s.size()); }
};

struct Params {
    std::array<Param, 4> p;

    Param &operator[](size_t i) { return p[i]; }
    // True when the kinds are exactly these (the rest none).
    bool are(Kind k0, Kind k1 = Kind::none, Kind k2 = Kind::none, Kind k3 = Kind::none) const {
        return p[0].kind == k0 && p[1].kind == k1 && p[2].kind == k2 && p[3].kind == k3;
    }
};

} // namespace karst::emu
