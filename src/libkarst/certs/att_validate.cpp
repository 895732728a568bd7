// SPDX-License-Identifier: Apache-2.0
// Attestation security validation (command 24): one number to the secure world, and the
// mapping of its two named refusals for callers.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/session_scope.hpp"

namespace {

constexpr uint32_t NOT_FOUND_ANSWER = 0xFFFF0008;
constexpr uint32_t REJECTED_ANSWER = 0xFFFF3074;

} // namespace

extern "C" int pta_invoke_att_validate(uint32_t cmd, uint32_t value) try {
    karst::tee::Exchange tee;
    tee.value(0, value);
    return tee.invoke(cmd) ? 0 : tee.code();
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_att_security_validate(uint32_t value) try {
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    switch (static_cast<uint32_t>(pta_invoke_att_validate(PTA_DALU_CMD_ATT_VALIDATE, value))) {
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
