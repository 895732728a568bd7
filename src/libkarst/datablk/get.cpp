// SPDX-License-Identifier: Apache-2.0
// Reading a key's value into a caller's buffer.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "datablk/store.hpp"

#include <cstring>
#include <string_view>

using namespace karst::datablk;

namespace {

// The magic id is not compared: a reader may look into a block of any kind.
int blk_get(std::string_view name, uint8_t *data, uint32_t *len, const uint8_t *blk) {
    const uint32_t capacity = *len;
    if (!length_and_name_ok(capacity, name, KARST_SITE)) {
        return -1;
    }
    std::memset(data, 0, capacity);

    const Lookup found = blk_getenv(name, blk);
    if (found.found != Found::yes || capacity < found.value_len) {
        return -1;
    }
    *len = found.value_len;
    std::memcpy(data, found.value, found.value_len);
    return 0;
}

} // namespace

extern "C" int pta20_datablk_get(uint32_t /*magic_id*/, const char *name, void *data, uint32_t *len,
                                 const void *blk) try {
    if (name == nullptr || data == nullptr || len == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s, data = %p\n", name != nullptr ? name : "(null)",
                    data);
        return -1;
    }
    return blk_get(name, static_cast<uint8_t *>(data), len, static_cast<const uint8_t *>(blk));
} catch (...) {
    return KARST_CAUGHT(-1);
}
