// SPDX-License-Identifier: Apache-2.0
// The CRC-32 step of data blocks, computed by zlib (same polynomial, reflected, table-driven).
//
// crc32i starts from its seed as given and returns the complement of the register; zlib's
// crc32 complements its argument first and its result last. So crc32i(seed, ...) equals
// crc32(~seed, ...).
#include "karst.h"

#include "core/boundary.hpp"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace {

// zlib takes a uInt length; longer runs go through in pieces.
uint32_t crc32_continue(uint32_t zlib_crc, const uint8_t *bytes, size_t len) {
    uLong crc = zlib_crc;
    while (len > 0) {
        const size_t piece = std::min<size_t>(len, UINT_MAX);
        crc = crc32(crc, bytes, static_cast<uInt>(piece));
        bytes += piece;
        len -= piece;
    }
    return static_cast<uint32_t>(crc);
}

} // namespace

extern "C" uint32_t crc32i(uint32_t crc, const void *buf, uint32_t len) try {
    // No bytes (or nowhere to read them): the register as it stands, complemented. zlib would
    // answer 0 for a null buffer whatever the seed.
    if (buf == nullptr || len == 0) {
        return ~crc;
    }
    return crc32_continue(~crc, static_cast<const uint8_t *>(buf), len);
} catch (...) {
    return KARST_CAUGHT(0);
}
