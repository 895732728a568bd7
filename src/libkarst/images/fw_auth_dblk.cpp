// SPDX-License-Identifier: Apache-2.0
// Authentication of an image together with a data block of its key files (command 31, also
// reached through dispatcher numbers 32 and 33).
#include "karst.h"

#include "image_map.hpp"
#include "image_table.hpp"
#include "key_lists.hpp"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "datablk/header.hpp"

#include <cstdio>

using namespace karst;
using namespace karst::images;

namespace {

constexpr uint32_t FW_DATABLK_SIZE = 65536;

// The name a key file is stored under: its place in the list and the three fields of its flags.
void key_name(uint8_t place, uint8_t flags, char (&name)[32]) {
    const unsigned bits = flags;
    std::snprintf(name, sizeof name, "key%u_%u_%u_%u", unsigned{place}, bits & KEY_FLAG_FILE,
                  (bits >> 1) & 0x01u, (bits >> 2) & 0x03u);
}

// Stores the type's key files and its key name list (the flags bytes) in blk. Reports at site.
bool store_keys(uint8_t *blk, uint32_t type, const img_key_list &keys, log::Site site) {
    const uint32_t count = keys.count();
    uint8_t key_names[KEY_LIST_MAX] = {};
    for (uint8_t i = 0; i < count && i < KEY_LIST_MAX; ++i) {
        const img_key_entry &entry = keys.entries[i];
        key_names[i] = entry.flags;
        if ((entry.flags & KEY_FLAG_FILE) == 0) {
            continue;
        }
        char name[32];
        key_name(i, entry.flags, name);
        FileBytes file;
        if (file.read(entry.path) != 0) {
            KARST_E_AT(site, "File %s doesn't exist for the entry number: %d in the image: %d\n",
                       entry.path, i, static_cast<int>(type));
            return false;
        }
        if (pta20_datablk_set(DATABLK_MAGIC_FW, name, file.data(), file.size(), blk) != 0) {
            KARST_E_AT(site,
                       "Failed to set key for the key file: %s, for the entry number: %d in the "
                       "image: %d\n",
                       entry.path, i, static_cast<int>(type));
            return false;
        }
    }
    if (pta20_datablk_set(DATABLK_MAGIC_FW, "key_name_list", key_names, count, blk) != 0) {
        KARST_E_AT(site, "Failed to set key_name_list for datablk\n");
        return false;
    }
    return true;
}

// The firmware data block in blk: format byte 3 set to 00, the image word and, for a type whose
// list is not empty, its keys. Reports at site.
bool build_block(uint8_t *blk, uint32_t img_id, const img_key_list &keys, log::Site site) {
    if (pta20_datablk_create(DATABLK_MAGIC_FW, blk, FW_DATABLK_SIZE) != 0) {
        return false;
    }
    blk[datablk::FORMAT_BYTE_3_OFFSET] = 0x00;
    if (pta20_datablk_set(DATABLK_MAGIC_FW, "fw_img", &img_id, sizeof img_id, blk) != 0) {
        KARST_E_AT(site, "Failed to set fwimg for datablk\n");
        return false;
    }
    return keys.count() == 0 || store_keys(blk, img_type(img_id), keys, site);
}

} // namespace

extern "C" int pta_invoke_fw_auth_dblk(uint32_t, uint32_t img_id, uint32_t img_flags, void *arg,
                                       uint32_t size) try {
    const img_key_list *keys = key_list(img_type(img_id));
    if (keys == nullptr) {
        KARST_E("Image name is not available");
        return -1;
    }
    HeapBuffer block;
    MappedImage image;
    tee::Exchange tee; // its registrations are released before the image and the block go
    if (!block.allocate(FW_DATABLK_SIZE, true)) {
        KARST_E("Failed to allot space for datablk\n");
        return -1;
    }
    if (!build_block(block.data(), img_id, *keys, KARST_SITE) ||
        !tee.share(0, block, TEEC_MEM_INPUT)) {
        return -1;
    }
    image = pta_mmap_img(img_id, img_flags, arg, &size);
    if (!image) {
        KARST_E("pta_mmap_img failed. Couldn't fetch the image from the mentioned payload.\n");
        return -1;
    }
    return tee.share(1, image.data(), size, TEEC_MEM_INPUT) && tee.invoke(PTA_DALU_CMD_FW_AUTH_DBLK)
               ? 0
               : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
