// SPDX-License-Identifier: Apache-2.0
// Numbers that callers send in a fixed byte order, whatever the host's: the data block header
// (CRC and magic id little-endian, data area length big-endian), the record and DER lengths
// (big-endian in as many bytes as they say), the secure register address (little-endian).
#pragma once

#include <cstddef>
#include <cstdint>

namespace karst::emu {

// The big-endian number in the count bytes at bytes (count at most eight).
constexpr uint64_t load_be(const uint8_t *bytes, size_t count) {
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

constexpr uint32_t load_be32(const uint8_t *bytes) {
    return static_cast<uint32_t>(load_be(bytes, sizeof(uint32_t)));
}

constexpr uint32_t load_le32(const uint8_t *bytes) {
    uint32_t value = 0;
    for (size_t i = sizeof value; i > 0; --i) {
        value = value << 8 | bytes[i - 1];
    }
    return value;
}

} // namespace karst::emu
