// SPDX-License-Identifier: Apache-2.0
// Creating a block in a caller's buffer, and the end of its use.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/header.hpp"

#include <cstring>

using namespace karst::datablk;

extern "C" int pta20_datablk_create(uint32_t magic_id, void *blk, uint32_t len) try {
    if (blk == nullptr || magic_id == 0 || len == 0) {
        return -1;
    }
    // A block needs its header and at least one data byte.
    if (!datablk_len_ok(len) || len <= HEADER_LEN) {
        KARST_E("Incorrect buffer length %x\n", len);
        return -1;
    }
    auto *bytes = static_cast<uint8_t *>(blk);
    std::memset(bytes, 0, len);
    write_header(bytes, magic_id, len - HEADER_LEN);
    datablk_store_crc(bytes);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_datablk_destroy(uint32_t magic_id, void *blk, uint32_t len) try {
    // The caller frees the buffer; nothing here belongs to the library.
    return blk == nullptr || magic_id == 0 || len == 0 ? -1 : 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
