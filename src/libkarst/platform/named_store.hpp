// SPDX-License-Identifier: Apache-2.0
// The steps that the secure world's stores of named values (the U-Boot environment and the
// inventory) share: the name travels in a buffer of its own as parameter 0, and the value comes
// back as text.
#pragma once

#include "core/exchange.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "core/text_answer.hpp"

#include <cstddef>
#include <cstring>

namespace karst::store {

// The name buffer; a name fills it with its terminating zero at most.
constexpr std::size_t NAME_SIZE = 1024;

// name, terminated, in a zeroed buffer of NAME_SIZE bytes shared as input parameter 0 of tee.
// False, reported at site, when the buffer cannot be taken, the name does not fit or the
// registration fails.
inline bool share_name(tee::Exchange &tee, HeapBuffer &buffer, const char *name, log::Site site) {
    if (!buffer.allocate(NAME_SIZE, true)) {
        KARST_E_AT(site, "Failed to allocate input buffer\n");
        return false;
    }
    const std::size_t length = std::strlen(name);
    if (length + 1 > NAME_SIZE) {
        KARST_E_AT(site, "Environment variable name too long\n");
        return false;
    }
    std::memcpy(buffer.data(), name, length + 1);
    return tee.share(0, buffer, TEEC_MEM_INPUT, site.line);
}

// The answer of n bytes at the start of value, handed to the caller: refused when capacity is
// below n; otherwise copied into out and terminated within capacity bytes, or printed as
// name=value when out is null. 0 or -1, failures reported at site.
inline int deliver(const char *name, const HeapBuffer &value, std::size_t n, char *out,
                   std::size_t capacity, log::Site site) {
    if (capacity < n) {
        KARST_E_AT(site, "Buffer has less space (%d) than actual data size (%d)\n",
                   static_cast<int>(capacity), static_cast<int>(n));
        return -1;
    }
    if (out == nullptr) {
        KARST_PRINT("%s=%.*s\n", name, static_cast<int>(n), value.chars());
        return 0;
    }
    std::memcpy(out, value.data(), n);
    if (!terminate_text(out, capacity, n)) {
        KARST_E_AT(site, "Value of %d bytes has no terminating zero\n", static_cast<int>(n));
        return -1;
    }
    return 0;
}

} // namespace karst::store
