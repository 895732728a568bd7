// SPDX-License-Identifier: Apache-2.0
#include "key_lists.hpp"

#include "karst.h"

#include <array>

namespace karst::images {
namespace {

// Each type with a list has its own pair of records; none has a key file to send yet.
constexpr img_key_entry BMC_KEYS[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry BIOS_KEYS[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry CPLD_KEYS[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry BPNCPLD_KEYS[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry NVFPGA_KEYS[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry SCMFPGA_KEYS[] = {{0x02, ""}, {0x00, ""}};

template <size_t N> constexpr img_key_list list_of(const img_key_entry (&entries)[N]) {
    static_assert(N <= KEY_LIST_MAX);
    return {static_cast<uint32_t>(N) << 8, entries};
}

constexpr std::array<img_key_list, KEY_LIST_TYPES> img_key_lists = [] {
    std::array<img_key_list, KEY_LIST_TYPES> t{};
    t[IMG_TYPE_BMC] = list_of(BMC_KEYS);
    t[IMG_TYPE_BIOS] = list_of(BIOS_KEYS);
    t[IMG_TYPE_CPLD] = list_of(CPLD_KEYS);
    t[IMG_TYPE_BPNCPLD] = list_of(BPNCPLD_KEYS);
    t[IMG_TYPE_NVFPGA] = list_of(NVFPGA_KEYS);
    t[IMG_TYPE_SCMFPGA] = list_of(SCMFPGA_KEYS);
    return t;
}();

} // namespace

const img_key_list *key_list(uint32_t type) {
    return type < KEY_LIST_TYPES ? &img_key_lists[type] : nullptr;
}

} // namespace karst::images
