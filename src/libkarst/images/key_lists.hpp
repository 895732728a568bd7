// SPDX-License-Identifier: Apache-2.0
// The key-file lists of the firmware authentication data block: per image type (0 to 21), the
// key files that go into the block and the flags byte of each, which is sent in the block's
// key name list.
#pragma once

#include <cstdint>

namespace karst::images {

constexpr uint32_t KEY_LIST_TYPES = 22;
constexpr uint32_t KEY_LIST_MAX = 8;    // the key name list has room for eight flags bytes
constexpr uint8_t KEY_FLAG_FILE = 0x01; // a record's flags bit 0: a key file to send

struct img_key_entry {
    uint8_t flags;    // bit 0: a key file to send; bits 1 and 3..2 go into the key's name
    const char *path; // the key file
};

struct img_key_list {
    uint32_t header; // bits 15..8: the number of records
    const img_key_entry *entries;

    uint32_t count() const { return (header >> 8) & 0xFF; }
};

// The list of a type; null for a type above 21.
const img_key_list *key_list(uint32_t type);

} // namespace karst::images
