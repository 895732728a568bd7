// SPDX-License-Identifier: Apache-2.0
#include "datablk_reader.hpp"

#include "byte_order.hpp"

#include <zlib.h>

namespace karst::emu::datablk {
namespace {

constexpr size_t DATA_LENGTH_OFFSET = 12;
constexpr uint8_t TAG_NAME = 0x16;
constexpr uint8_t TAG_VALUE = 0x02;
constexpr size_t MAX_LENGTH_BYTES = 4;

} // namespace

Header header_of(std::span<const uint8_t> bytes) {
    return {load_le32(bytes.data()), load_le32(bytes.data() + MAGIC_OFFSET),
            load_be32(bytes.data() + DATA_LENGTH_OFFSET)};
}

bool crc_holds(std::span<const uint8_t> bytes, const Header &header) {
    const size_t covered = header.data_length + HEADER_SIZE - MAGIC_OFFSET;
    return crc32(0L, bytes.data() + MAGIC_OFFSET, static_cast<uInt>(covered)) == header.crc;
}

std::optional<std::span<const uint8_t>> Block::find(const std::string &name) const {
    for (const auto &[key, value] : records) {
        if (key == name) {
            return value;
        }
    }
    return std::nullopt;
}

std::optional<Block> parse(std::span<const uint8_t> bytes) {
    if (bytes.size() < HEADER_SIZE) {
        return std::nullopt;
    }
    const Header header = header_of(bytes);
    const size_t data_len = header.data_length;
    if (data_len == 0 || data_len > bytes.size() - HEADER_SIZE || !crc_holds(bytes, header)) {
        return std::nullopt;
    }

    Block block;
    block.magic = header.magic;
    const std::span<const uint8_t> area = bytes.subspan(HEADER_SIZE, data_len);
    size_t off = 0;
    // The records end at the first zero tag or length byte, or at the end of the area.
    while (off + 2 <= area.size() && area[off] != 0 && area[off + 1] != 0) {
        const size_t name_len = area[off + 1];
        if (area[off] != TAG_NAME || name_len > area.size() - off - 2) {
            return std::nullopt;
        }
        std::string name(reinterpret_cast<const char *>(&area[off + 2]), name_len);
        off += 2 + name_len;
        if (off + 2 > area.size() || area[off] != TAG_VALUE) {
            return std::nullopt;
        }
        const size_t n = area[off + 1];
        if (n == 0 || n > MAX_LENGTH_BYTES || n > area.size() - off - 2) {
            return std::nullopt;
        }
        const size_t value_len = load_be(&area[off + 2], n);
        off += 2 + n;
        if (value_len > area.size() - off) {
            return std::nullopt;
        }
        block.records.emplace_back(std::move(name), area.subspan(off, value_len));
        off += value_len;
    }
    return block;
}

} // namespace karst::emu::datablk
