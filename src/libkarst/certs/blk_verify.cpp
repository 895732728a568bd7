// SPDX-License-Identifier: Apache-2.0
// Block verify (command 17): the secure world checks a block file sent whole.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"

extern "C" int pta_invoke_blk_verify(uint32_t cmd, const char *path) try {
    karst::FileBytes block;
    karst::tee::Exchange tee;
    if (path == nullptr || block.read(path) != 0) {
        return -1;
    }
    if (!tee.share(0, block.data(), block.size(), TEEC_MEM_INPUT) || !tee.invoke(cmd)) {
        return tee.code();
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
