// SPDX-License-Identifier: Apache-2.0
// Attestation security validation (24): the value (parameter 0, a) is a mask of the checks the
// caller asks for.
//   0x1  device identity: the device key is usable
//   0x2  remote attestation: an RA certificate was replaced and RA data issued
// A mask of 0 is BAD_PARAMETERS; a bit outside 0x3 is ITEM_NOT_FOUND (no such check); a failing
// device identity is SECURITY; a missing remote attestation is RA_REJECTED (0xFFFF3074).
#include "application.hpp"
#include "device_identity.hpp"
#include "ra_data.hpp"
#include "security_state.hpp"

namespace karst::emu {
namespace {

constexpr uint32_t CHECK_IDENTITY = 0x1;
constexpr uint32_t CHECK_REMOTE_ATTESTATION = 0x2;
constexpr uint32_t KNOWN_CHECKS = CHECK_IDENTITY | CHECK_REMOTE_ATTESTATION;

} // namespace

TEEC_Result att_validate(Params &params) {
    if (!params.are(Kind::value_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t checks = params[0].value.a;
    if (checks == 0) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if ((checks & ~KNOWN_CHECKS) != 0) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    if ((checks & CHECK_IDENTITY) != 0 && identity::device_public_key_pem().empty()) {
        return TEEC_ERROR_SECURITY;
    }
    if ((checks & CHECK_REMOTE_ATTESTATION) != 0 && !security::ra_issued()) {
        return ra::RA_REJECTED;
    }
    return TEEC_SUCCESS;
}

} // namespace karst::emu
