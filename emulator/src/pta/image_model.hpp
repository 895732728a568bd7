// SPDX-License-Identifier: Apache-2.0
// The application's model of the board's firmware devices and their stored image copies.
//
// Every image type with a table on the controller is a device with a flash of the type's image
// size. The BMC's flash is the active image in the eMMC (emmc.hpp); the others are files in the
// state directory holding what was last programmed (the rest of the flash reads erased, 0xFF),
// or a factory image until the first update. Uploaded copies are recorded per type and slot.
#pragma once

#include "params.hpp"

#include <cstdint>
#include <span>
#include <string>

namespace karst::emu {

struct DeviceInfo {
    const char *name;     // for messages and factory images
    uint64_t flash_size;  // bytes
    const char *progress; // name in "/tmp/fw-update-<name>.out", or null
};

// An image word: the image type in bits 15..8, the slot in bits 7..0.
constexpr uint32_t image_type(uint32_t img_id) {
    return (img_id >> 8) & 0xFF;
}
constexpr uint32_t image_slot(uint32_t img_id) {
    return img_id & 0xFF;
}

// The device of an image type, or null.
const DeviceInfo *device_info(uint32_t type);

// The authentication rule: an image is authentic when it begins with a signature table, that
// is, its first big-endian 32-bit word carries the table version 0x5300 in bits 31..16.
bool image_authentic(std::span<const uint8_t> image);

// Fills out with the device's current image, from its start: the programmed bytes, then erased
// flash, up to the flash size. Returns the number of bytes written.
size_t read_device(uint32_t type, std::span<uint8_t> out);

// Programs the device with image (at most the flash size), paced at the programming rate;
// written is called after each chunk with the bytes done so far. False on a storage failure.
bool program_device(uint32_t type, std::span<const uint8_t> image,
                    void (*written)(void *user, uint64_t done), void *user);

// Uploaded copies of a type's slot. The application keeps what identifies a copy, its length and
// digest (image_digest), read from the shared memory in one pass; delete clears the record.
bool store_copy(uint32_t img_id, std::span<const uint8_t> image);
bool delete_copy(uint32_t img_id);
bool stored_copy(uint32_t img_id, uint64_t &size, uint64_t &digest);

// A 64-bit digest of an image: four Fletcher-style lanes over its little-endian 64-bit words
// (the tail zero-padded), folded with the length. As fast as reading every byte once.
uint64_t image_digest(std::span<const uint8_t> image);

// Bytes per second at which devices are programmed; 0: at once.
uint64_t program_rate();
// Back to the default rate (or KARST_EMU_PROGRAM_RATE).
void reset_program_rate();

} // namespace karst::emu
