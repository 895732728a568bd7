// SPDX-License-Identifier: Apache-2.0
// Sizes and CRC of a block.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/store.hpp"

using namespace karst::datablk;

extern "C" int32_t pta20_datablk_get_info(const void *blk, int32_t opt) try {
    if (blk == nullptr) {
        return -1;
    }
    const auto *bytes = static_cast<const uint8_t *>(blk);
    const uint32_t data_len = max_data_len(bytes);
    if (!datablk_len_ok(data_len)) {
        KARST_E("Incorrect datablk max data length %x\n", data_len);
        return -1;
    }
    if (!datablk_crc_ok(bytes)) {
        KARST_E("CRC error\n");
        return -1;
    }

    switch (opt) {
    case DATABLK_INFO_MAX_LEN:
        return static_cast<int32_t>(data_len);
    case DATABLK_INFO_USED_LEN: {
        const RecordsEnd end = walk_records(area_of(bytes));
        if (end.out_of_bounds) {
            KARST_E("Data Block record out of bounds at offset %u\n", end.offset);
            return -1;
        }
        return end.offset >= data_len ? -1 : static_cast<int32_t>(end.offset);
    }
    case DATABLK_INFO_CRC:
        return static_cast<int32_t>(stored_crc(bytes));
    default:
        KARST_E("Invalid argument opt (%d)\n", opt);
        return -1;
    }
} catch (...) {
    return KARST_CAUGHT(-1);
}
