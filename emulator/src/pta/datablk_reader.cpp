#include "datablk_reader.hpp"

#include <zlib.h>

namespace karst::emu::datablk {
namespace {

constexpr size_t HEADER_SIZE = 16;
constexpr uint8_t TAG_NAME = 0x16;
constexpr uint8_t TAG_VALUE = 0x02;
constexpr size_t MAX_LENGTH_BYTES = 4;

uint32_t le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

} // namespace

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
    const uint8_t *p = bytes.data();
    const size_t data_len = be32(p + 12);
    if (data_len == 0 || data_len > bytes.size() - HEADER_SIZE) {
        return std::nullopt;
    }
    const uLong crc = crc32(0L, p + 4, static_cast<uInt>(data_len + HEADER_SIZE - 4));
    if (crc != le32(p)) {
        return std::nullopt;
    }

    Block block;
    block.magic = le32(p + 4);
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
        size_t value_len = 0;
        for (size_t i = 0; i < n; ++i) {
            value_len = value_len << 8 | area[off + 2 + i];
        }
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
