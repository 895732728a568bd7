// SPDX-License-Identifier: Apache-2.0
// OTP key read (command 20) and OTP user area programming (command 21). Both send the number as
// value a and memory registered as output in parameter 1: for a key read the caller's buffer,
// written in place; for programming a copy of the caller's data in memory the client library
// allocates, which the secure world reads. The caller's data is never registered itself: a client
// library without registered memory would send output memory as zeros (and program them, once
// and for good) and copy the answer back over the caller's data.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/session_scope.hpp"

extern "C" int __pta_invoke_otp_get_key(uint32_t cmd, uint32_t key_id, void *buf,
                                        uint32_t size) try {
    karst::tee::Exchange tee;
    tee.value(0, key_id);
    return tee.share(1, buf, size, TEEC_MEM_OUTPUT) && tee.invoke(cmd) ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int __pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data,
                                         uint32_t len) try {
    karst::tee::Exchange tee;
    tee.value(0, offset);
    return tee.share_copy(1, data, len, TEEC_MEM_OUTPUT) && tee.invoke(cmd) ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_otp_get_key(uint32_t cmd, uint32_t key_id, void *buf, uint32_t size) try {
    const karst::tee::SessionScope session;
    return session.open() && __pta_invoke_otp_get_key(cmd, key_id, buf, size) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data,
                                       uint32_t len) try {
    const karst::tee::SessionScope session;
    return session.open() && __pta_invoke_otp_prog_usr(cmd, offset, data, len) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
