// SPDX-License-Identifier: Apache-2.0
#include "der_chain.hpp"

namespace karst::att {

namespace {

constexpr std::uint8_t SEQUENCE_TAG = 0x30;
constexpr std::uint8_t LONG_FORM = 0x80;

} // namespace

DerWalk walk_der_chain(std::span<const std::uint8_t> data, std::uint32_t wanted) {
    DerWalk walk;
    const std::size_t end = data.size();
    std::size_t offset = 0;
    std::uint32_t position = 0;
    while (offset < end) {
        walk.offset = offset;
        walk.position = position;
        if (end - offset < 2) {
            walk.outcome = DerWalk::Outcome::short_header;
            return walk;
        }
        walk.tag = data[offset];
        if (walk.tag != SEQUENCE_TAG) {
            walk.outcome = DerWalk::Outcome::bad_tag;
            return walk;
        }
        const std::uint8_t first = data[offset + 1];
        // The content length, gathered in 32 bits as the encoding's bytes come.
        std::uint32_t length = first;
        std::uint64_t header = 2;
        if (first >= LONG_FORM) {
            const std::size_t k = first & 0x7Fu;
            if (k > end - offset - 2) {
                walk.outcome = DerWalk::Outcome::bad_length;
                return walk;
            }
            length = 0;
            for (std::size_t i = 0; i < k; ++i) {
                length = (length << 8) | data[offset + 2 + i];
            }
            header += k;
        }
        walk.size = header + length;
        if (walk.size > end - offset) {
            walk.outcome = DerWalk::Outcome::overrun;
            return walk;
        }
        if (position == wanted) {
            walk.outcome = DerWalk::Outcome::found;
            return walk;
        }
        offset += static_cast<std::size_t>(walk.size);
        ++position;
    }
    walk.outcome = DerWalk::Outcome::not_found;
    walk.offset = offset;
    walk.position = wanted;
    return walk;
}

} // namespace karst::att
