// SPDX-License-Identifier: Apache-2.0
// The controller's eMMC as the emulator keeps it: two sparse files under the run root,
// "/dev/mmcblk0" (the whole device, holding the active BMC image in two regions) and
// "/dev/mmcblk0p2" (the partition with the golden BMC, BIOS and CPLD images). They are separate
// files, not one file with the partition at an offset: the library opens each by its own name.
#pragma once

#include <cstdint>
#include <string>

namespace karst::emu {

constexpr uint64_t MMC_DEVICE_SIZE = 0x8000000;    // 128 MiB
constexpr uint64_t MMC_PARTITION_SIZE = 0x8800000; // 136 MiB

// The active BMC image: its first 0x630000 bytes at byte 0x400000 of the device, the rest
// (0x39D0000 bytes) at byte 0xC00000.
constexpr uint64_t BMC_REGION1_OFFSET = 0x400000;
constexpr uint64_t BMC_REGION1_SIZE = 0x630000;
constexpr uint64_t BMC_REGION2_OFFSET = 0xC00000;
constexpr uint64_t BMC_REGION2_SIZE = 0x39D0000;

// Golden images in the partition.
constexpr uint64_t GOLDEN_BMC_OFFSET = 0;
constexpr uint64_t GOLDEN_BIOS_OFFSET = 0x4200000;
constexpr uint64_t GOLDEN_CPLD_OFFSET = 0x8400000;

std::string mmc_device_path(const std::string &root);
std::string mmc_partition_path(const std::string &root);

// Creates both files under root when they are missing, sparse, with a factory image header at
// the start of each image. False when a file cannot be made.
bool create_emmc(const std::string &root);

// The header the emulator writes at the start of a factory image of type (see images.hpp):
// a signature table version word, so that factory images authenticate.
std::string factory_header(uint32_t type, const char *what);

} // namespace karst::emu
