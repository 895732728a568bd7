// SPDX-License-Identifier: Apache-2.0
// Certificate authentication (30): parameter 0 is the DER certificate to authenticate,
// parameter 1 one or more DER certificates back to back that may have issued it. Accepted when
// one of them names the certificate's issuer and its key verifies the certificate's signature:
// otherwise SIGNATURE_INVALID. Bytes that are not DER certificates are BAD_FORMAT.
#include "application.hpp"
#include "certificate_der.hpp"

namespace karst::emu {

TEEC_Result auth_certs(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    auto subject = der::certificates(params[0].memory);
    auto issuers = der::certificates(params[1].memory);
    if (subject.size() != 1 || issuers.empty()) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    for (auto &issuer : issuers) {
        if (der::issued_by(subject[0].get(), issuer.get())) {
            return TEEC_SUCCESS;
        }
    }
    return SIGNATURE_INVALID;
}

} // namespace karst::emu
