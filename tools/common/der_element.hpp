// SPDX-License-Identifier: Apache-2.0
// The DER element reader the tools share (karstctl's certificate summary, karstd's key and
// request checks): one element's tag, its bytes whole and its content, never read past the
// bytes given.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace karst::der {

struct Element {
    uint8_t tag = 0;
    std::span<const uint8_t> whole, content;
};

// Takes the next element off the front of in (definite lengths of up to four bytes).
inline std::optional<Element> next(std::span<const uint8_t> &in) {
    constexpr uint8_t LONG_FORM = 0x80;
    constexpr size_t MAX_LENGTH_BYTES = 4;
    if (in.size() < 2) {
        return std::nullopt;
    }
    size_t length = in[1];
    size_t head = 2;
    if ((length & LONG_FORM) != 0) {
        const size_t n = length & ~size_t{LONG_FORM};
        if (n == 0 || n > MAX_LENGTH_BYTES || in.size() < head + n) {
            return std::nullopt;
        }
        length = 0;
        for (size_t i = 0; i < n; ++i) {
            length = length << CHAR_BIT | in[head + i];
        }
        head += n;
    }
    if (in.size() - head < length) {
        return std::nullopt;
    }
    const Element e{in[0], in.first(head + length), in.subspan(head, length)};
    in = in.subspan(head + length);
    return e;
}

} // namespace karst::der
