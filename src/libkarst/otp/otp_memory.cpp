// SPDX-License-Identifier: Apache-2.0
// OTP key read (command 20) and OTP user area programming (command 21): the caller's buffer is
// registered as it is and the secure world reads or writes it in place.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/session_scope.hpp"

namespace {

// One procedure for both: the number as value a, the caller's memory as an output reference
// (for programming, the secure world reads the data from it). Failures are reported as routine.
int invoke_with_memory(const char *routine, uint32_t cmd, uint32_t number, void *buf,
                       uint32_t size) {
    karst::tee::Exchange tee(routine);
    tee.value(0, number);
    return tee.share(1, buf, size, TEEC_MEM_OUTPUT) && tee.invoke(cmd) ? 0 : -1;
}

} // namespace

extern "C" int __pta_invoke_otp_get_key(uint32_t cmd, uint32_t key_id, void *buf,
                                        uint32_t size) try {
    return invoke_with_memory(__func__, cmd, key_id, buf, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int __pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data,
                                         uint32_t len) try {
    return invoke_with_memory(__func__, cmd, offset, data, len);
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
