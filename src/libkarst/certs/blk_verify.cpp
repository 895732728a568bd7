// Block verify (command 17): the secure world checks a block file sent whole.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

extern "C" int pta_invoke_blk_verify(uint32_t cmd, const char *path) try {
    using namespace karst::tee;

    karst::FileBytes block;
    if (path == nullptr || block.read(path) != 0) {
        return -1;
    }
    SharedRegion block_shm;
    if (TEEC_Result res = block_shm.share(block.data(), block.size(), TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }
    Operation op;
    op.whole(0, block_shm);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
