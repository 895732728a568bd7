// SPDX-License-Identifier: Apache-2.0
// Refreshing the CRC of a block changed by other means.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/header.hpp"

using namespace karst::datablk;

extern "C" int pta20_datablk_update_crc(uint32_t /*magic_id*/, void *blk) try {
    if (blk == nullptr) {
        return -1;
    }
    auto *bytes = static_cast<uint8_t *>(blk);
    // The CRC covers max_data_len + 12 bytes: a length out of range is not followed.
    const uint32_t data_len = max_data_len(bytes);
    if (!datablk_len_ok(data_len)) {
        KARST_E("Incorrect datablk max data length %x\n", data_len);
        return -1;
    }
    datablk_store_crc(bytes);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
