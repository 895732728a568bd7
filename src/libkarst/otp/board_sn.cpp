// The board serial number (command 23): a 32-bit word and a buffer, both the caller's, filled
// by the secure world.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"
#include "core/text_answer.hpp"

#include <algorithm>

extern "C" int _pta_invoke_board_sn_get(uint32_t cmd, uint32_t *out_word, void *buf,
                                        uint32_t size) try {
    using namespace karst::tee;

    if (out_word == nullptr) {
        return -1;
    }
    *out_word = 0;
    SharedRegion word_shm;
    if (TEEC_Result res = word_shm.share(out_word, sizeof *out_word, TEEC_MEM_OUTPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    SharedRegion buf_shm;
    if (TEEC_Result res = buf_shm.share(buf, size, TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    Operation op;
    op.whole(0, word_shm).whole(1, buf_shm);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }
    // The serial number is text: terminated inside the caller's buffer.
    const size_t n = std::min<size_t>(op.size_of(1), size);
    if (buf != nullptr && size > 0 && !karst::terminate_text(static_cast<char *>(buf), size, n)) {
        KARST_E("Serial number of %d bytes has no terminating zero\n", static_cast<int>(n));
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_otp_get_board_sn(uint32_t cmd, uint32_t *out_word, void *buf,
                                           uint32_t size) try {
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_board_sn_get(cmd, out_word, buf, size);
    pta_close_session();
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_otp_board_sn_get(uint32_t *out_word, void *buf, uint32_t size) try {
    if (out_word == nullptr || buf == nullptr || size == 0) {
        return -1;
    }
    return pta_invoke_otp_get_board_sn(PTA_DALU_CMD_BOARD_SN_GET, out_word, buf, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}
