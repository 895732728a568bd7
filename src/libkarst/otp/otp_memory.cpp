// OTP key read (command 20) and OTP user area programming (command 21): the caller's buffer is
// registered as it is and the secure world reads or writes it in place.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

namespace {

// One procedure for both: the number as value a, the caller's memory as an output reference
// (for programming, the secure world reads the data from it).
int invoke_with_memory(const char *routine, uint32_t cmd, uint32_t number, void *buf,
                       uint32_t size) {
    using namespace karst::tee;

    SharedRegion shm;
    if (TEEC_Result res = shm.share(buf, size, TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E_AS(routine, "TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    Operation op;
    op.value(0, number).whole(1, shm);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E_AS(routine, "TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
}

template <typename Body> int in_session(Body body) {
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = body();
    pta_close_session();
    return rc == 0 ? 0 : -1;
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
    return in_session([&] { return __pta_invoke_otp_get_key(cmd, key_id, buf, size); });
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data,
                                       uint32_t len) try {
    return in_session([&] { return __pta_invoke_otp_prog_usr(cmd, offset, data, len); });
} catch (...) {
    return KARST_CAUGHT(-1);
}
