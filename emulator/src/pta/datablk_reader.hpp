// SPDX-License-Identifier: Apache-2.0
// The application's reader of data blocks as the library sends them: a 16-byte header (CRC-32
// and magic id little-endian, four format bytes, data area length big-endian), then key/value
// records. Read only, and strict: a block is taken only when its header fits what was sent,
// its CRC holds and every record lies inside its data area.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace karst::emu::datablk {

constexpr uint32_t MAGIC_CERT = 0x43524544;
constexpr uint32_t MAGIC_ATT = 0x49545441;
constexpr uint32_t MAGIC_FW = 0x54524244;

// The header: CRC-32 (little-endian) over the rest of the header and the data area, magic id
// (little-endian), four format bytes, data area length (big-endian).
constexpr size_t HEADER_SIZE = 16;
constexpr size_t MAGIC_OFFSET = 4;
struct Header {
    uint32_t crc = 0;
    uint32_t magic = 0;
    uint32_t data_length = 0;
};
// The header at the start of bytes, which hold at least HEADER_SIZE of them.
Header header_of(std::span<const uint8_t> bytes);
// Whether the header's CRC holds over bytes up to the end of its data area, which bytes hold.
bool crc_holds(std::span<const uint8_t> bytes, const Header &header);

struct Block {
    uint32_t magic = 0;
    // Records in their order; values are windows on the bytes that were parsed.
    std::vector<std::pair<std::string, std::span<const uint8_t>>> records;

    // The first record of that name.
    std::optional<std::span<const uint8_t>> find(const std::string &name) const;
};

// The block at the start of bytes, or nothing when it is not a well-formed block.
std::optional<Block> parse(std::span<const uint8_t> bytes);

} // namespace karst::emu::datablk
