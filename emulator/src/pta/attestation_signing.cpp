// SPDX-License-Identifier: Apache-2.0
// Attestation sign (14) and verify (15) with the device key: ECDSA P-256 over SHA-256, the
// signature DER-encoded. The signing option (parameter 0) is not interpreted.
#include "application.hpp"
#include "device_identity.hpp"

namespace karst::emu {

TEEC_Result att_sign(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_in, Kind::mem_out)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const std::vector<uint8_t> signature = identity::sign(params[1].memory);
    if (signature.empty()) {
        return TEEC_ERROR_GENERIC;
    }
    return params[2].put(signature.data(), signature.size());
}

TEEC_Result att_verify(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    return identity::verify(params[0].memory, params[1].memory) ? TEEC_SUCCESS : SIGNATURE_INVALID;
}

} // namespace karst::emu
