// SPDX-License-Identifier: Apache-2.0
// The image types karstd updates: those whose update keeps a progress file, so that the
// software object can show how far it is.
#pragma once

#include "karst.h"

#include <array>
#include <cstdint>

namespace karstd {

struct ImageType {
    const char *name;          // in object paths and messages
    uint32_t type;             // IMG_TYPE_*
    const char *inventory_key; // where the inventory holds the type's version
    const char *purpose;       // Software.Version's Purpose
};

constexpr char PURPOSE_HOST[] = "xyz.openbmc_project.Software.Version.VersionPurpose.Host";
constexpr char PURPOSE_OTHER[] = "xyz.openbmc_project.Software.Version.VersionPurpose.Other";

constexpr std::array<ImageType, 5> IMAGE_TYPES = {{
    {"bios", IMG_TYPE_BIOS, "BIOS_VERSION", PURPOSE_HOST},
    {"cpld", IMG_TYPE_CPLD, "CPLD_VERSION", PURPOSE_OTHER},
    {"nvfpga", IMG_TYPE_NVFPGA, "NVFPGA_VERSION", PURPOSE_OTHER},
    {"nvbios", IMG_TYPE_NVBIOS, "NVBIOS_VERSION", PURPOSE_OTHER},
    {"erotmcu", IMG_TYPE_EROTMCU, "EROTMCU_VERSION", PURPOSE_OTHER},
}};

// The image word of a type's staging slot, where karstd puts every image it is given.
constexpr uint32_t staging_word(const ImageType &t) {
    return IMG_ID(t.type, IMG_IDX_STAGING);
}

} // namespace karstd
