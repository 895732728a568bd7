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
