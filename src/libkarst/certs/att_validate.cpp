// Attestation security validation (command 24): one number to the secure world, and the
// mapping of its two named refusals for callers.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

namespace {

constexpr uint32_t NOT_FOUND_ANSWER = 0xFFFF0008;
constexpr uint32_t REJECTED_ANSWER = 0xFFFF3074;

} // namespace

extern "C" int pta_invoke_att_validate(uint32_t cmd, uint32_t value) try {
    using namespace karst::tee;

    Operation op;
    op.value(0, value);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_att_security_validate(uint32_t value) try {
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const auto answer =
        static_cast<uint32_t>(pta_invoke_att_validate(PTA_DALU_CMD_ATT_VALIDATE, value));
    pta_close_session();
    switch (answer) {
    case 0:
        return 0;
    case NOT_FOUND_ANSWER:
        return PTA20_ATT_VALIDATE_NOT_FOUND;
    case REJECTED_ANSWER:
        return PTA20_ATT_VALIDATE_REJECTED;
    default:
        return -1;
    }
} catch (...) {
    return KARST_CAUGHT(-1);
}
