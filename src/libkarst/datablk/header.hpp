// SPDX-License-Identifier: Apache-2.0
// The data block header: where its fields are, their byte orders, the length rule and the CRC
// that covers the block.
//
//   0  crc           4 bytes, little-endian
//   4  magic_id      4 bytes, little-endian
//   8  format        01 01 00 01
//   12 max_data_len  4 bytes, big-endian
//   16 data area     max_data_len bytes
#pragma once

#include <cstddef>
#include <cstdint>

namespace karst::datablk {

constexpr uint32_t HEADER_LEN = 16;
constexpr uint32_t MAX_LEN = 0x3FFFF0;
constexpr size_t CRC_OFFSET = 0;
constexpr size_t MAGIC_OFFSET = 4;
constexpr size_t FORMAT_OFFSET = 8;
constexpr size_t MAX_DATA_LEN_OFFSET = 12;
constexpr uint8_t FORMAT[4] = {0x01, 0x01, 0x00, 0x01};
// Format byte 3: 01 in a new block; the firmware authentication block carries 00 there.
constexpr size_t FORMAT_BYTE_3_OFFSET = FORMAT_OFFSET + 3;

// 1 <= length <= MAX_LEN: the rule for buffer lengths, max_data_len, value lengths and
// capacities.
inline bool datablk_len_ok(uint32_t length) {
    return length >= 1 && length <= MAX_LEN;
}

uint32_t load_le32(const uint8_t *p);
uint32_t load_be32(const uint8_t *p);
void store_le32(uint8_t *p, uint32_t value);
void store_be32(uint8_t *p, uint32_t value);

inline uint32_t stored_crc(const uint8_t *blk) {
    return load_le32(blk + CRC_OFFSET);
}
inline uint32_t magic_id(const uint8_t *blk) {
    return load_le32(blk + MAGIC_OFFSET);
}
inline uint32_t max_data_len(const uint8_t *blk) {
    return load_be32(blk + MAX_DATA_LEN_OFFSET);
}
inline uint8_t *data_area(uint8_t *blk) {
    return blk + HEADER_LEN;
}
inline const uint8_t *data_area(const uint8_t *blk) {
    return blk + HEADER_LEN;
}

// Writes the header of an empty block (crc 0) with a data area of data_len bytes.
void write_header(uint8_t *blk, uint32_t magic, uint32_t data_len);

// CRC-32 of bytes 4 to the end of the data area; max_data_len must pass datablk_len_ok and
// the block must hold 16 + max_data_len bytes.
uint32_t datablk_crc(const uint8_t *blk);
// Whether the stored CRC equals datablk_crc.
bool datablk_crc_ok(const uint8_t *blk);
// Stores datablk_crc at offset 0.
void datablk_store_crc(uint8_t *blk);

// The CRC register over bytes 4 to 16 + split: the header and the first split data bytes.
struct CrcPrefix {
    uint32_t split;
    uint32_t crc; // crc32i's result over those bytes
};
CrcPrefix datablk_crc_prefix(const uint8_t *blk, uint32_t split);
// datablk_crc, going on from a prefix (whose bytes must not have changed since).
uint32_t datablk_crc_from(const uint8_t *blk, CrcPrefix prefix);

} // namespace karst::datablk
