#include "key_lists.hpp"

#include "karst.h"

#include <array>

namespace karst::images {
namespace {

// Each type with a list has its own pair of records; none has a key file to send yet.
constexpr img_key_entry bmc_keys[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry bios_keys[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry cpld_keys[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry bpncpld_keys[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry nvfpga_keys[] = {{0x02, ""}, {0x00, ""}};
constexpr img_key_entry scmfpga_keys[] = {{0x02, ""}, {0x00, ""}};

template <size_t N> constexpr img_key_list list_of(const img_key_entry (&entries)[N]) {
    static_assert(N <= KEY_LIST_MAX);
    return {static_cast<uint32_t>(N) << 8, entries};
}

constexpr std::array<img_key_list, KEY_LIST_TYPES> img_key_lists = [] {
    std::array<img_key_list, KEY_LIST_TYPES> t{};
    t[IMG_TYPE_BMC] = list_of(bmc_keys);
    t[IMG_TYPE_BIOS] = list_of(bios_keys);
    t[IMG_TYPE_CPLD] = list_of(cpld_keys);
    t[IMG_TYPE_BPNCPLD] = list_of(bpncpld_keys);
    t[IMG_TYPE_NVFPGA] = list_of(nvfpga_keys);
    t[IMG_TYPE_SCMFPGA] = list_of(scmfpga_keys);
    return t;
}();

} // namespace

const img_key_list *key_list(uint32_t type) {
    return type < KEY_LIST_TYPES ? &img_key_lists[type] : nullptr;
}

} // namespace karst::images
