// Authentication of an image together with a data block of its key files (command 31, also
// reached through dispatcher numbers 32 and 33).
#include "karst.h"

#include "image_map.hpp"
#include "image_table.hpp"
#include "key_lists.hpp"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <cstdio>
#include <cstdlib>

using namespace karst;
using namespace karst::images;

namespace {

constexpr uint32_t FW_DATABLK_SIZE = 65536;
constexpr size_t FORMAT_BYTE_3 = 11; // the firmware block's format byte 3 is 0x00

// The whole content of a key file, freed on every path.
struct KeyFile {
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ~KeyFile() { std::free(data); }
};

} // namespace

extern "C" int pta_invoke_fw_auth_dblk(uint32_t, uint32_t img_id, uint32_t img_flags, void *arg,
                                       uint32_t size) try {
    const uint32_t type = img_type(img_id);
    const img_key_list *keys = key_list(type);
    if (keys == nullptr) {
        KARST_E("Image name is not available");
        return -1;
    }

    tee::SharedBuffer block;
    if (!block.allocate(FW_DATABLK_SIZE, true)) {
        KARST_E("Failed to allot space for datablk\n");
        return -1;
    }
    uint8_t *blk = block.data();
    if (pta20_datablk_create(DATABLK_MAGIC_FW, blk, FW_DATABLK_SIZE) != 0) {
        return -1;
    }
    blk[FORMAT_BYTE_3] = 0x00;
    if (pta20_datablk_set(DATABLK_MAGIC_FW, "fw_img", &img_id, sizeof img_id, blk) != 0) {
        KARST_E("Failed to set fwimg for datablk\n");
        return -1;
    }

    const uint32_t count = keys->count();
    if (count != 0) {
        uint8_t key_names[KEY_LIST_MAX] = {};
        for (uint8_t i = 0; i < count && i < KEY_LIST_MAX; ++i) {
            const img_key_entry &entry = keys->entries[i];
            key_names[i] = entry.flags;
            if ((entry.flags & 0x01) == 0) {
                continue;
            }
            char name[32];
            std::snprintf(name, sizeof name, "key%u_%u_%u_%u", unsigned{i},
                          unsigned{entry.flags & 0x01u}, unsigned{(entry.flags >> 1) & 0x01u},
                          unsigned{(entry.flags >> 2) & 0x03u});
            KeyFile file;
            if (readbin(entry.path, &file.data, &file.size) != 0) {
                KARST_E("File %s doesn't exist for the entry number: %d in the image: %d\n",
                        entry.path, i, static_cast<int>(type));
                return -1;
            }
            if (pta20_datablk_set(DATABLK_MAGIC_FW, name, file.data, file.size, blk) != 0) {
                KARST_E("Failed to set key for the key file: %s, for the entry number: %d in the "
                        "image: %d\n",
                        entry.path, i, static_cast<int>(type));
                return -1;
            }
        }
        if (pta20_datablk_set(DATABLK_MAGIC_FW, "key_name_list", key_names, count, blk) != 0) {
            KARST_E("Failed to set key_name_list for datablk\n");
            return -1;
        }
    }

    if (TEEC_Result res = block.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    const MappedImage image = pta_mmap_img(img_id, img_flags, arg, &size);
    if (!image) {
        KARST_E("pta_mmap_img failed. Couldn't fetch the image from the mentioned payload.\n");
        return -1;
    }
    tee::SharedRegion region;
    if (TEEC_Result res = region.share(image.data(), size, TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    tee::Operation op;
    op.whole(0, block).whole(1, region);
    uint32_t origin = 0;
    if (TEEC_Result res = tee::invoke(PTA_DALU_CMD_FW_AUTH_DBLK, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
