// SPDX-License-Identifier: Apache-2.0
// Walking a chain of DER certificates laid back to back, as the secure world returns them, to
// find the certificate at one position. Every length is checked against the data before it is
// used; sizes are reckoned in 64 bits, so no length can wrap around.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace karst::att {

struct DerWalk {
    enum class Outcome {
        found,        // the certificate is at offset, size bytes (tag and length included)
        short_header, // fewer than 2 bytes left at offset
        bad_tag,      // the byte at offset (tag) is not 0x30
        bad_length,   // the long-form length bytes run past the data
        overrun,      // certificate number position of size bytes runs past the data
        not_found,    // the data ended before the position sought
    };
    Outcome outcome = Outcome::not_found;
    std::size_t offset = 0;     // where the certificate (or the fault) starts
    std::uint64_t size = 0;     // the certificate's size, header included
    std::uint32_t position = 0; // the certificate's position in the chain
    std::uint8_t tag = 0;
};

// Walks data from offset 0 until the certificate at wanted (0 for the first) is found, or a
// fault ends the walk.
DerWalk walk_der_chain(std::span<const std::uint8_t> data, std::uint32_t wanted);

} // namespace karst::att
