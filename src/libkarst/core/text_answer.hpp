// SPDX-License-Identifier: Apache-2.0
// Text that the secure world answers into a buffer: the interface promises the caller a
// terminated text, whatever the secure world wrote.
#pragma once

#include <cstddef>
#include <cstring>

namespace karst {

// buf holds the n answer bytes (n <= room, room >= 1). When they hold no zero byte, one is
// written right after them. False when there is no room for it: the text is then cut to room - 1
// bytes and terminated, so that the buffer is a text either way.
inline bool terminate_text(char *buf, std::size_t room, std::size_t n) {
    if (std::memchr(buf, '\0', n) != nullptr) {
        return true;
    }
    if (n < room) {
        buf[n] = '\0';
        return true;
    }
    buf[room - 1] = '\0';
    return false;
}

} // namespace karst
