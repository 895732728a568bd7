// SPDX-License-Identifier: Apache-2.0
// The board serial number (command 23): a 32-bit word and a buffer, both the caller's, filled
// by the secure world.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "core/text_answer.hpp"

#include <algorithm>

extern "C" int _pta_invoke_board_sn_get(uint32_t cmd, uint32_t *out_word, void *buf,
                                        uint32_t size) try {
    if (out_word == nullptr) {
        return -1;
    }
    *out_word = 0;
    karst::tee::Exchange tee;
    if (!tee.share(0, out_word, sizeof *out_word, TEEC_MEM_OUTPUT) ||
        !tee.share(1, buf, size, TEEC_MEM_OUTPUT)) {
        return -1;
    }
    if (!tee.invoke(cmd)) {
        return tee.code();
    }
    // The serial number is text: terminated inside the caller's buffer.
    const size_t n = std::min<size_t>(tee.size_of(1), size);
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
    const karst::tee::SessionScope session;
    return session.open() && _pta_invoke_board_sn_get(cmd, out_word, buf, size) == 0 ? 0 : -1;
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
