// SPDX-License-Identifier: Apache-2.0
// The image table: for every image type and slot, where that copy of the device's firmware lives
// on the controller (a file under /nv1, a region of the eMMC partition, or nowhere the library
// can reach). Constant; compiled into the library.
#pragma once

#include "karst.h"

#include <cstdint>

namespace karst::images {

// Types 0 to 23 (IMG_TYPE_COUNT), slots 0 to 14 (IMG_IDX_COUNT).

struct img_entry {
    uint8_t kind;  // IMG_KIND_FILE, IMG_KIND_MMC, or 0..2 (no store the library opens)
    uint8_t attr1; // attribute bytes, not read by the library
    uint8_t attr2;
    const char *path; // kind 4: the file (a board path)
    uint32_t offset;  // kind 3: byte offset in the partition
    uint32_t size;    // kind 4: largest file accepted; kind 3: region length; else default length
};

constexpr uint32_t img_type(uint32_t img_id) {
    return (img_id >> 8) & 0xFF;
}
constexpr uint32_t img_index(uint32_t img_id) {
    return img_id & 0xFF;
}

// The record of a type's slot; null for a type without a table or an index above 14.
const img_entry *image_slot(uint32_t type, uint32_t index);

// The record of an image word's slot (null as above).
inline const img_entry *image_slot(uint32_t img_id) {
    return image_slot(img_type(img_id), img_index(img_id));
}

} // namespace karst::images
