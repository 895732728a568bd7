// SPDX-License-Identifier: Apache-2.0
// Image commands that send an image to the secure world: authenticate (0), upload (1) and
// update (2). The image is mapped, not read: the mapping itself is registered as shared memory.
#include "karst.h"

#include "image_map.hpp"
#include "image_table.hpp"

#include "core/boundary.hpp"
#include "core/exchange.hpp"

namespace {

using namespace karst;
using namespace karst::images;

// One procedure for the three commands. routine names the routine in messages; a failed invoke
// gives -1, or the TEE result code when pass_code is set.
int send_image(const char *routine, uint32_t command, bool pass_code, uint32_t img_id,
               uint32_t img_flags, void *arg, uint32_t size) {
    if (img_type(img_id) >= IMG_TYPE_COUNT) {
        return -1;
    }
    const MappedImage image = pta_mmap_img(img_id, img_flags, arg, &size);
    if (!image) {
        return -1;
    }
    tee::Exchange tee(routine); // its registration is released before the image goes
    tee.value(0, img_id, img_flags);
    if (!tee.share(1, image.data(), size, TEEC_MEM_INPUT)) {
        return -1;
    }
    if (!tee.invoke(command)) {
        return pass_code ? tee.code() : -1;
    }
    return 0;
}

} // namespace

extern "C" int pta_invoke_fw_auth(uint32_t, uint32_t img_id, uint32_t img_flags, void *arg,
                                  uint32_t size) try {
    return send_image(__func__, PTA_DALU_CMD_FW_AUTH, false, img_id, img_flags, arg, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_fw_upload(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                    uint32_t size) try {
    return send_image(__func__, cmd, true, img_id, img_flags, arg, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_fw_update(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                    uint32_t size) try {
    return send_image(__func__, cmd, true, img_id, img_flags, arg, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}
