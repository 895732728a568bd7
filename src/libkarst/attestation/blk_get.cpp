// SPDX-License-Identifier: Apache-2.0
// Data block retrieval (command 16): the secure world's block of a type, a number and a name,
// written whole to "/tmp/datablk.bin". The library does not look into the block.
#include "karst.h"

#include "attestation/answer_file.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"

#include <cstring>

namespace {

constexpr uint32_t BLOCK_TYPE_LAST = 3;
constexpr size_t BLOCK_SIZE = 65536;

} // namespace

extern "C" int pta_invoke_blk_get(uint32_t command, uint32_t type, uint32_t value,
                                  const char *name) try {
    using namespace karst;

    if (name == nullptr) {
        KARST_E("Missing datablk name\n");
        return -1;
    }
    HeapBuffer name_buf;
    HeapBuffer block;
    tee::Exchange tee;
    const size_t name_len = std::strlen(name);
    if (!name_buf.allocate(name_len)) {
        KARST_E("Failed to allocate space for input buffer\n");
        return -1;
    }
    std::memcpy(name_buf.data(), name, name_len);
    if (!tee.share(1, name_buf, TEEC_MEM_INPUT)) {
        return tee.code();
    }
    if (type > BLOCK_TYPE_LAST) {
        KARST_E("Unsupported datablk type %d\n", static_cast<int>(type));
        return -1;
    }
    if (!block.allocate(BLOCK_SIZE, true)) {
        KARST_E("Failed to malloc space for datablk\n");
        return -1;
    }
    tee.value(0, type, value);
    if (!tee.share(2, block, TEEC_MEM_INPUT | TEEC_MEM_OUTPUT) || !tee.invoke(command)) {
        return tee.code();
    }
    // The whole buffer is written, whatever the secure world filled.
    return att::write_answer_file(paths::DATABLK_FILE, block, att::OpenFailure::plain, KARST_SITE)
               ? 0
               : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
