// SPDX-License-Identifier: Apache-2.0
// Data blocks for the tests: exact-size buffers (so that a sanitizer build catches any read past
// them), hex forms for comparisons, and message matching.
#pragma once

#include "karst.h"

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

namespace karst::test {

using Bytes = std::vector<uint8_t>;

inline Bytes bytes_of(const std::string &text) {
    return Bytes(text.begin(), text.end());
}

// "16 06 72 ..." for a byte range.
inline std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += i ? " " : "";
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}
inline std::string hex(const Bytes &b) {
    return hex(b.data(), b.size());
}

inline uint32_t le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<uint32_t>(p[3]) << 24;
}

// A new block of size bytes (filled with junk first, which create must clear).
inline Bytes new_block(uint32_t size, uint32_t magic = DATABLK_MAGIC_CERT) {
    Bytes blk(size, 0xA5);
    if (pta20_datablk_create(magic, blk.data(), size) != 0) {
        blk.clear();
    }
    return blk;
}

inline int set(Bytes &blk, const std::string &key, const Bytes &value,
               uint32_t magic = DATABLK_MAGIC_CERT) {
    return pta20_datablk_set(magic, key.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                             blk.data());
}

// The value of key, or "<-1>" when get fails.
inline std::string get(const Bytes &blk, const std::string &key, uint32_t capacity = 4096) {
    std::string out(capacity, '\0');
    uint32_t len = capacity;
    if (pta20_datablk_get(DATABLK_MAGIC_CERT, key.c_str(), out.data(), &len, blk.data()) != 0) {
        return "<-1>";
    }
    return out.substr(0, len);
}

// Whether text is exactly one error line of func, "[E:func:<line>] message\n".
inline bool is_error(const std::string &text, const std::string &func, const std::string &message) {
    const std::string escaped =
        std::regex_replace(message, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    return std::regex_match(text, std::regex(R"(\[E:)" + func + R"(:\d+\] )" + escaped + "\n"));
}

} // namespace karst::test
