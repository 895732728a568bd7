// SPDX-License-Identifier: Apache-2.0
// Header fields and the block CRC. Fields are read and written byte by byte, so their byte
// orders hold on any host and no alignment is assumed.
#include "datablk/header.hpp"

#include "karst.h"

#include <cstring>

namespace karst::datablk {
namespace {

constexpr uint32_t CRC_SEED = 0xFFFFFFFFu; // crc32i's starting register for a whole block

} // namespace

uint32_t load_le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t load_be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

void store_le32(uint8_t *p, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void store_be32(uint8_t *p, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        p[3 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void write_header(uint8_t *blk, uint32_t magic, uint32_t data_len) {
    store_le32(blk + CRC_OFFSET, 0);
    store_le32(blk + MAGIC_OFFSET, magic);
    std::memcpy(blk + FORMAT_OFFSET, FORMAT, sizeof FORMAT);
    store_be32(blk + MAX_DATA_LEN_OFFSET, data_len);
}

uint32_t datablk_crc(const uint8_t *blk) {
    return crc32i(CRC_SEED, blk + MAGIC_OFFSET, max_data_len(blk) + (HEADER_LEN - MAGIC_OFFSET));
}

bool datablk_crc_ok(const uint8_t *blk) {
    return datablk_crc(blk) == stored_crc(blk);
}

void datablk_store_crc(uint8_t *blk) {
    store_le32(blk + CRC_OFFSET, datablk_crc(blk));
}

CrcPrefix datablk_crc_prefix(const uint8_t *blk, uint32_t split) {
    return {split, crc32i(CRC_SEED, blk + MAGIC_OFFSET, split + (HEADER_LEN - MAGIC_OFFSET))};
}

uint32_t datablk_crc_from(const uint8_t *blk, CrcPrefix prefix) {
    return crc32i(~prefix.crc, data_area(blk) + prefix.split, max_data_len(blk) - prefix.split);
}

} // namespace karst::datablk
