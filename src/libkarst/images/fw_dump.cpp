// Image commands that need no image from the caller: dump the device's image into a file (3) and
// delete a stored copy (10).
#include "karst.h"

#include "image_table.hpp"

#include "core/board_files.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/mapping.hpp"
#include "core/run_root.hpp"
#include "core/shared_buffer.hpp"

#include <string>

using namespace karst;
using namespace karst::images;

namespace {

// The device types whose image the dump command returns.
bool dumpable(uint32_t type) {
    return type == IMG_TYPE_BIOS || type == IMG_TYPE_CPLD || type == IMG_TYPE_NVFPGA ||
           type == IMG_TYPE_NVBIOS;
}

} // namespace

extern "C" int pta_invoke_fw_dump(uint32_t, uint32_t img_id, uint32_t img_flags, void *arg,
                                  uint32_t size) try {
    const img_entry *pimg = image_slot(img_id);
    if (!dumpable(img_type(img_id)) || pimg == nullptr || pimg->kind != IMG_KIND_FILE) {
        return -1;
    }
    std::string destination;
    const bool own_slot = (img_flags & IMG_SRC_MASK) == IMG_SRC_TABLE;
    switch (img_flags & IMG_SRC_MASK) {
    case IMG_SRC_TABLE:
        destination = platform_path(pimg->path);
        break;
    case IMG_SRC_FILE:
        if (arg == nullptr) {
            return -1;
        }
        destination = static_cast<const char *>(arg);
        break;
    default:
        return -1;
    }
    if (size == 0) {
        size = pimg->size;
    }

    // Anonymous pages rather than the heap: a 64 MiB flash image costs no heap buffer, and only
    // the pages the secure world writes are ever backed.
    Mapping buffer;
    if (!buffer.map(-1, size, 0)) {
        KARST_E("Failed to allocate buffer for flash dump\n");
        return -1;
    }
    tee::SharedRegion region;
    if (TEEC_Result res = region.share(buffer.data(), size, TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    tee::Operation op;
    op.value(0, img_id, img_flags).whole(1, region);
    uint32_t origin = 0;
    if (TEEC_Result res = tee::invoke(PTA_DALU_CMD_FW_DUMP, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res); // the destination stays as it was
    }

    // The slot's own file is made afresh (never written through what else is at its name); a
    // caller's file is used as given.
    board::Stream file = own_slot ? board::create_stream(pimg->path, "w+", KARST_SITE)
                                  : board::Stream{File::open(destination.c_str(), "w+")};
    if (!file.file) {
        if (file.reported()) {
            return -1;
        }
        KARST_PRINT("Failed to open file:%s\n", destination.c_str());
        return -1;
    }
    if (std::fwrite(buffer.data(), size, 1, file.get()) != 1 || !file.file.close()) {
        KARST_E("Failed to write file:%s\n", destination.c_str());
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_fw_delete(uint32_t, uint32_t img_id, uint32_t img_flags, void *) try {
    const uint32_t type = img_type(img_id);
    const uint32_t index = img_index(img_id);
    if (type > IMG_TYPE_CPLD || (index != IMG_IDX_STAGING && index != IMG_IDX_BACKUP)) {
        return -1;
    }
    tee::Operation op;
    op.value(0, img_id, img_flags);
    uint32_t origin = 0;
    if (TEEC_Result res = tee::invoke(PTA_DALU_CMD_FW_DELETE, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
