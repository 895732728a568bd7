// SPDX-License-Identifier: Apache-2.0
// Image commands that need no image from the caller: dump the device's image into a file (3) and
// delete a stored copy (10).
#include "karst.h"

#include "image_table.hpp"

#include "core/board_files.hpp"
#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/mapping.hpp"
#include "core/run_root.hpp"

#include <string>

using namespace karst;
using namespace karst::images;

namespace {

// The device types whose image the dump command returns.
bool dumpable(uint32_t type) {
    return type == IMG_TYPE_BIOS || type == IMG_TYPE_CPLD || type == IMG_TYPE_NVFPGA ||
           type == IMG_TYPE_NVBIOS;
}

// Where the dump goes: the slot's own file (source 0) or the caller's file arg (source 2).
// False for any other source or a missing file name.
bool destination_of(const img_entry &slot, uint32_t img_flags, const void *arg,
                    std::string &destination) {
    switch (img_flags & IMG_SRC_MASK) {
    case IMG_SRC_TABLE:
        destination = platform_path(slot.path);
        return true;
    case IMG_SRC_FILE:
        if (arg == nullptr) {
            return false;
        }
        destination = static_cast<const char *>(arg);
        return true;
    default:
        return false;
    }
}

// Writes the dumped image to its destination. The slot's own file is made afresh (never written
// through what else is at its name); a caller's file is used as given. Reports at site.
int write_dump(const img_entry &slot, bool own_slot, const std::string &destination,
               const Mapping &image, uint32_t size, log::Site site) {
    board::Stream file = own_slot ? board::create_stream(slot.path, "w+", site)
                                  : board::Stream{File::open(destination.c_str(), "w+")};
    if (!file.file) {
        if (file.reported()) {
            return -1;
        }
        KARST_PRINT("Failed to open file:%s\n", destination.c_str());
        return -1;
    }
    if (std::fwrite(image.data(), size, 1, file.get()) != 1 || !file.file.close()) {
        KARST_E_AT(site, "Failed to write file:%s\n", destination.c_str());
        return -1;
    }
    return 0;
}

} // namespace

extern "C" int pta_invoke_fw_dump(uint32_t, uint32_t img_id, uint32_t img_flags, void *arg,
                                  uint32_t size) try {
    const img_entry *pimg = image_slot(img_id);
    std::string destination;
    if (!dumpable(img_type(img_id)) || pimg == nullptr || pimg->kind != IMG_KIND_FILE ||
        !destination_of(*pimg, img_flags, arg, destination)) {
        return -1;
    }
    if (size == 0) {
        size = pimg->size;
    }
    // Anonymous pages rather than the heap: a 64 MiB flash image costs no heap buffer, and only
    // the pages the secure world writes are ever backed.
    Mapping buffer;
    tee::Exchange tee;
    if (!buffer.map(-1, size, 0)) {
        KARST_E("Failed to allocate buffer for flash dump\n");
        return -1;
    }
    tee.value(0, img_id, img_flags);
    if (!tee.share(1, buffer.data(), size, TEEC_MEM_OUTPUT)) {
        return -1;
    }
    if (!tee.invoke(PTA_DALU_CMD_FW_DUMP)) {
        return tee.code(); // the destination stays as it was
    }
    const bool own_slot = (img_flags & IMG_SRC_MASK) == IMG_SRC_TABLE;
    return write_dump(*pimg, own_slot, destination, buffer, size, KARST_SITE);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_fw_delete(uint32_t, uint32_t img_id, uint32_t img_flags, void *) try {
    const uint32_t type = img_type(img_id);
    const uint32_t index = img_index(img_id);
    if (type > IMG_TYPE_CPLD || (index != IMG_IDX_STAGING && index != IMG_IDX_BACKUP)) {
        return -1;
    }
    tee::Exchange tee;
    tee.value(0, img_id, img_flags);
    return tee.invoke(PTA_DALU_CMD_FW_DELETE) ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
