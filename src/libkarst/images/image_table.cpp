// SPDX-License-Identifier: Apache-2.0
#include "image_table.hpp"

#include "karst.h"

#include <array>

namespace karst::images {
namespace {

using Table = std::array<img_entry, IMG_IDX_COUNT>;

constexpr img_entry active(uint8_t kind, uint8_t attr1, uint32_t size) {
    return {kind, attr1, 0, nullptr, 0, size};
}
constexpr img_entry file(const char *path, uint32_t size, uint8_t attr2 = 6) {
    return {IMG_KIND_FILE, 0, attr2, path, 0, size};
}
constexpr img_entry region(uint32_t offset, uint32_t size) {
    return {IMG_KIND_MMC, 0, 0, nullptr, offset, size};
}
constexpr img_entry none(uint32_t size) {
    return {0, 0, 0, nullptr, 0, size};
}

constexpr uint32_t MIB_64 = 0x4000000;
constexpr uint32_t MIB_32 = 0x2000000;
constexpr uint32_t MIB_16 = 0x1000000;
constexpr uint32_t KIB_256 = 0x40000;
constexpr uint32_t SCMFPGA_SIZE = 0xA8000;
constexpr uint32_t PDBFPGA_SIZE = 0x24000;

constexpr Table BMC_SLOTS = {
    active(2, 3, MIB_64),
    file("/nv1/bmc_staging.bin", MIB_64),
    file("/nv1/bmc_backup.bin", MIB_64),
    region(0, MIB_64),
    file("/nv1/bmc_evidence.bin", MIB_64),
};

constexpr Table BIOS_SLOTS = {
    active(1, 1, MIB_64),
    file("/nv1/bios_staging.bin", MIB_64),
    file("/nv1/bios_backup.bin", MIB_64),
    region(0x4200000, MIB_64),
    file("/nv1/bios_evidence.bin", MIB_64),
    {},
    file("/nv1/bios_backup_st.bin", MIB_64),
    file("/nv1/bios_golden_st.bin", MIB_64),
};

constexpr Table CPLD_SLOTS = {
    active(1, 2, KIB_256),
    file("/nv1/cpld_staging.bin", KIB_256),
    file("/nv1/cpld_backup.bin", KIB_256),
    region(0x8400000, KIB_256),
    file("/nv1/cpld_evidence.bin", KIB_256),
    {},
    {},
    file("/nv1/cpld_golden_st.bin", KIB_256),
};

// The staging file of the backplane CPLD may be as large as a 64 MiB image.
constexpr Table BPNCPLD_SLOTS = {
    active(0, 2, KIB_256),
    file("/nv1/bpncpld_staging.bin", MIB_64),
    file("/nv1/bpncpld_backup.bin", KIB_256),
    none(KIB_256),
    file("/nv1/bpncpld_evidence.bin", KIB_256),
};

constexpr Table NVFPGA_SLOTS = {
    active(0, 2, MIB_16),
    file("/nv1/nvfpga_staging.bin", MIB_16),
    file("/nv1/nvfpga_backup.bin", MIB_16),
    file("/nv1/nvfpga_golden.bin", MIB_16),
    file("/nv1/nvfpga_evidence.bin", MIB_16),
};

constexpr Table NVBIOS_SLOTS = {
    active(0, 2, MIB_32),
    file("/nv1/nvbios_staging.bin", MIB_32),
    file("/nv1/nvbios_backup.bin", MIB_32),
    file("/nv1/nvbios_golden.bin", MIB_32),
    file("/nv1/nvbios_evidence.bin", MIB_32),
};

constexpr Table SCMFPGA_SLOTS = {
    active(1, 2, SCMFPGA_SIZE),
    file("/nv1/scmfpga_staging.bin", SCMFPGA_SIZE),
    file("/nv1/scmfpga_backup.bin", SCMFPGA_SIZE),
    file("/nv1/scmfpga_golden.bin", SCMFPGA_SIZE, 0),
    file("/nv1/scmfpga_evidence.bin", SCMFPGA_SIZE),
    {},
    {},
    file("/nv1/scmfpga_golden_st.bin", SCMFPGA_SIZE),
};

constexpr Table PDBFPGA_SLOTS = {
    active(0, 2, PDBFPGA_SIZE),
    file("/nv1/pdbfpga_staging.bin", PDBFPGA_SIZE),
    file("/nv1/pdbfpga_backup.bin", PDBFPGA_SIZE),
    none(PDBFPGA_SIZE),
    file("/nv1/pdbfpga_evidence.bin", PDBFPGA_SIZE),
};

constexpr Table EROTMCU_SLOTS = {
    active(1, 2, KIB_256),
    file("/nv1/erotmcu_staging.bin", KIB_256),
    file("/nv1/erotmcu_backup.bin", KIB_256),
    file("/nv1/erotmcu_golden.bin", KIB_256, 0),
    file("/nv1/erotmcu_evidence.bin", KIB_256),
    {},
    {},
    file("/nv1/erotmcu_golden_st.bin", KIB_256),
};

constexpr std::array<const Table *, IMG_TYPE_COUNT> img_tables = [] {
    std::array<const Table *, IMG_TYPE_COUNT> t{};
    t[IMG_TYPE_BMC] = &BMC_SLOTS;
    t[IMG_TYPE_BIOS] = &BIOS_SLOTS;
    t[IMG_TYPE_CPLD] = &CPLD_SLOTS;
    t[IMG_TYPE_BPNCPLD] = &BPNCPLD_SLOTS;
    t[IMG_TYPE_NVFPGA] = &NVFPGA_SLOTS;
    t[IMG_TYPE_NVBIOS] = &NVBIOS_SLOTS;
    t[IMG_TYPE_SCMFPGA] = &SCMFPGA_SLOTS;
    t[IMG_TYPE_PDBFPGA] = &PDBFPGA_SLOTS;
    t[IMG_TYPE_EROTMCU] = &EROTMCU_SLOTS;
    return t;
}();

} // namespace

const img_entry *image_slot(uint32_t type, uint32_t index) {
    if (type >= IMG_TYPE_COUNT || index >= IMG_IDX_COUNT || img_tables[type] == nullptr) {
        return nullptr;
    }
    return &(*img_tables[type])[index];
}

} // namespace karst::images
