// SPDX-License-Identifier: Apache-2.0
// Storing a value under a key, with the CRC refreshed. Every failure leaves the block as it was.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/store.hpp"

#include <cstring>
#include <string_view>

using namespace karst::datablk;

namespace {

int blk_set(uint32_t magic_id, std::string_view name, const uint8_t *data, uint32_t len,
            uint8_t *blk) {
    if (!length_and_name_ok(len, name, KARST_SITE)) {
        return -1;
    }
    if (magic_id != karst::datablk::magic_id(blk)) {
        KARST_E("Incorrect datablk magic id 0x%x\n", magic_id);
        return -1;
    }

    const Lookup found = blk_getenv(name, blk);
    if (found.found == Found::bad_block) {
        return -1;
    }
    // The same value again: nothing changes, the CRC included.
    if (found.found == Found::yes && found.value_len == len &&
        std::memcmp(found.value, data, len) == 0) {
        return 0;
    }
    // A wrong CRC does not stop the write; the new CRC covers the block as it then stands. The
    // write walks on from where the lookup stopped (from the start after a wrong CRC), and
    // leaves the bytes before that point as they were: their CRC is not computed again.
    if (blk_setenv(name, data, len, blk, found.walk) != 0) {
        return -1;
    }
    if (found.found == Found::bad_crc) {
        datablk_store_crc(blk);
    } else {
        store_le32(blk, datablk_crc_from(blk, found.crc_prefix));
    }
    return 0;
}

} // namespace

extern "C" int pta20_datablk_set(uint32_t magic_id, const char *name, const void *data,
                                 uint32_t len, void *blk) try {
    if (name == nullptr || data == nullptr || blk == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s\n", name != nullptr ? name : "(null)");
        return -1;
    }
    return blk_set(magic_id, name, static_cast<const uint8_t *>(data), len,
                   static_cast<uint8_t *>(blk));
} catch (...) {
    return KARST_CAUGHT(-1);
}
