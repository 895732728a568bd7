// SPDX-License-Identifier: Apache-2.0
// The KLV pair encoding.
#include "datablk/klv.hpp"

#include <cstring>

namespace karst::klv {

uint32_t byte_count(uint32_t value) {
    uint32_t count = 0;
    while (value != 0) {
        ++count;
        value >>= 8;
    }
    return count;
}

uint32_t be_encode(uint32_t value, uint8_t *out) {
    const uint32_t count = byte_count(value);
    for (uint32_t i = 0; i < count; ++i) {
        out[count - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
    return count;
}

uint32_t length_field_size(uint32_t value_len) {
    const uint32_t count = byte_count(value_len);
    return count == 0 ? 1 : count;
}

uint32_t encode_value_header(uint32_t value_len, uint8_t *out) {
    const uint32_t n = length_field_size(value_len);
    out[0] = TAG_VALUE;
    out[1] = static_cast<uint8_t>(n);
    if (value_len == 0) {
        out[2] = 0;
    } else {
        be_encode(value_len, out + 2);
    }
    return 2 + n;
}

size_t encode_pair(std::span<uint8_t> out, std::string_view name, std::span<const uint8_t> value) {
    if (!name_ok(name) || value.size() > UINT32_MAX) {
        return 0;
    }
    const auto value_len = static_cast<uint32_t>(value.size());
    const uint64_t size = pair_size(name.size(), value_len);
    if (size > out.size()) {
        return 0;
    }
    uint8_t *p = out.data();
    *p++ = TAG_NAME;
    *p++ = static_cast<uint8_t>(name.size());
    std::memcpy(p, name.data(), name.size());
    p += name.size();
    p += encode_value_header(value_len, p);
    if (value_len > 0) {
        std::memcpy(p, value.data(), value_len);
    }
    return static_cast<size_t>(size);
}

} // namespace karst::klv
