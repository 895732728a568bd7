// SPDX-License-Identifier: Apache-2.0
// Provisioning query (22). Byte 0 of the status buffer answers 0 for yes, 1 for no:
//   query 0  the device key is provisioned                     yes
//   query 1  the factory certificate chain is provisioned      yes
//   query 2  a certificate was stored by a replacement         yes once one was
//   3..255   nothing else is provisioned                        no
// A query above 255 answers TEEC_ERROR_BAD_PARAMETERS.
#include "application.hpp"
#include "cert_store.hpp"
#include "device_identity.hpp"

namespace karst::emu {
namespace {

constexpr uint32_t QUERY_LAST = 255;
constexpr uint8_t YES = 0;
constexpr uint8_t NO = 1;

} // namespace

TEEC_Result prov_query(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_out) || params[1].memory.empty()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t query = params[0].value.a;
    if (query > QUERY_LAST) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    bool yes = false;
    switch (query) {
    case 0:
        yes = !identity::device_public_key_pem().empty();
        break;
    case 1:
        yes = !identity::certificate_chain().empty();
        break;
    case 2:
        yes = latest_certificate().has_value();
        break;
    default:
        break;
    }
    const uint8_t status = yes ? YES : NO;
    return params[1].put(&status, 1);
}

} // namespace karst::emu
