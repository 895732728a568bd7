// SPDX-License-Identifier: Apache-2.0
// Checking a block of known buffer size, such as one received from other software, before the
// calls that trust its header.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/store.hpp"

using namespace karst::datablk;

extern "C" int pta20_datablk_check(const void *blk, uint32_t buffer_len) try {
    if (blk == nullptr) {
        return -1;
    }
    if (!datablk_len_ok(buffer_len) || buffer_len <= HEADER_LEN) {
        KARST_E("Incorrect buffer length %x\n", buffer_len);
        return -1;
    }
    const auto *bytes = static_cast<const uint8_t *>(blk);
    const uint32_t data_len = max_data_len(bytes);
    if (!datablk_len_ok(data_len) || data_len > buffer_len - HEADER_LEN) {
        KARST_E("Incorrect datablk max data length %x\n", data_len);
        return -1;
    }
    if (!datablk_crc_ok(bytes)) {
        KARST_E("CRC error\n");
        return -1;
    }
    PairWalk walk{area_of(bytes)};
    Pair pair{};
    while (next_pair(walk, pair)) {
    }
    if (walk.out_of_bounds) {
        KARST_E("Data Block record out of bounds at offset %u\n", walk.offset);
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
