// SPDX-License-Identifier: Apache-2.0
// The key/length/value (KLV) pair encoding: a name record (tag 0x16, one length byte, the name)
// followed by a value record (tag 0x02, a count N, the value length V big-endian in N bytes,
// the value). Data blocks are made of these pairs; other buffers (such as SPDM evidence) pack
// them back to back on their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace karst::klv {

constexpr uint8_t TAG_NAME = 0x16;
constexpr uint8_t TAG_VALUE = 0x02;
constexpr size_t NAME_MAX = 255;

// Number of bytes that hold value: 0 for 0, 1 up to 0xFF, 2 up to 0xFFFF, 3 up to 0xFFFFFF,
// else 4.
uint32_t byte_count(uint32_t value);

// Writes value big-endian in byte_count(value) bytes at out; returns that count.
uint32_t be_encode(uint32_t value, uint8_t *out);

// The number held big-endian in n bytes: the sum of bytes[n-1-i] << (8*i mod 32).
inline uint32_t be_decode(const uint8_t *bytes, uint32_t n) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < n; ++i) {
        value += static_cast<uint32_t>(bytes[n - 1 - i]) << ((8 * i) % 32);
    }
    return value;
}

// Size of the value record's length field: byte_count(value_len), at least 1.
uint32_t length_field_size(uint32_t value_len);

// Size of a value record's header (tag, N and the length field).
inline uint32_t value_header_size(uint32_t value_len) {
    return 2 + length_field_size(value_len);
}

// Size of a whole pair: 2 + L + 2 + N + V.
inline uint64_t pair_size(size_t name_len, uint32_t value_len) {
    return 2 + static_cast<uint64_t>(name_len) + value_header_size(value_len) + value_len;
}

// Whether a name can be recorded (1 to 255 bytes: its length is one byte).
inline bool name_ok(std::string_view name) {
    return !name.empty() && name.size() <= NAME_MAX;
}

// Writes a value record's header (tag, N, V) at out; returns its size.
uint32_t encode_value_header(uint32_t value_len, uint8_t *out);

// Writes one pair at the start of out. Returns the bytes written, or 0 (nothing written) when
// the name cannot be recorded or the pair does not fit in out.
size_t encode_pair(std::span<uint8_t> out, std::string_view name, std::span<const uint8_t> value);

} // namespace karst::klv
