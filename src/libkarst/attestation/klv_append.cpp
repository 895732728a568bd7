// SPDX-License-Identifier: Apache-2.0
#include "attestation/spdm_evidence.hpp"

#include "datablk/klv.hpp"

#include <cstring>

namespace karst::att {

int klv_append(const char *key, const std::uint8_t *value, std::uint32_t value_len,
               std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset) {
    if (key == nullptr || buffer == nullptr || offset == nullptr ||
        (value == nullptr && value_len != 0)) {
        return -1;
    }
    const std::string_view name(key, std::strlen(key));
    if (!klv::name_ok(name)) {
        return -1;
    }
    if (*offset > capacity ||
        klv::pair_size(name.size(), value_len) > std::uint64_t{capacity} - *offset) {
        return -2;
    }
    const std::size_t written =
        klv::encode_pair({buffer + *offset, capacity - *offset}, name, {value, value_len});
    if (written == 0) {
        return -2;
    }
    *offset += static_cast<std::uint32_t>(written);
    return 0;
}

} // namespace karst::att
