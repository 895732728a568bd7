// SPDX-License-Identifier: Apache-2.0
// Certificate replacement: certificate (11) and remote attestation certificate (27).
//
// Parameter 0 is the certificate's URI (text). Parameter 1 is either one DER certificate, or a
// certificate data block holding the certificate under the URI (and, for 27, an 8-byte
// "RA_TID"). The certificate is kept for certificate retrieval. Command 27 answers in
// parameter 3 the RA data issued for the certificate (66,560 bytes).
#include "application.hpp"
#include "cert_store.hpp"
#include "certificate_der.hpp"
#include "datablk_reader.hpp"
#include "ra_data.hpp"
#include "security_state.hpp"

#include <array>

namespace karst::emu {
namespace {

constexpr char RA_TID_KEY[] = "RA_TID";
constexpr size_t RA_TID_SIZE = 8;

struct Replacement {
    std::string uri;
    std::vector<uint8_t> certificate;
    std::array<uint8_t, RA_TID_SIZE> tid{}; // zeros when none was sent
};

TEEC_Result read_replacement(Params &params, Replacement &out) {
    if (!params[0].text(out.uri) || out.uri.empty()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const std::span<const uint8_t> payload = params[1].memory;
    if (der::is_one_certificate(payload)) {
        out.certificate.assign(payload.begin(), payload.end());
        return TEEC_SUCCESS;
    }
    const auto block = datablk::parse(payload);
    if (!block || block->magic != datablk::MAGIC_CERT) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    const auto certificate = block->find(out.uri);
    if (!certificate) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    if (!der::is_one_certificate(*certificate)) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    out.certificate.assign(certificate->begin(), certificate->end());
    if (const auto tid = block->find(RA_TID_KEY)) {
        if (tid->size() != RA_TID_SIZE) {
            return TEEC_ERROR_BAD_FORMAT;
        }
        std::copy(tid->begin(), tid->end(), out.tid.begin());
    }
    return TEEC_SUCCESS;
}

} // namespace

TEEC_Result replace_crt(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in, Kind::value_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    Replacement r;
    if (TEEC_Result res = read_replacement(params, r); res != TEEC_SUCCESS) {
        return res;
    }
    store_certificate(r.uri, std::move(r.certificate));
    return TEEC_SUCCESS;
}

TEEC_Result replace_ra_crt(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in, Kind::value_in, Kind::mem_out)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    Replacement r;
    if (TEEC_Result res = read_replacement(params, r); res != TEEC_SUCCESS) {
        return res;
    }
    if (params[3].memory.size() < ra::RESULT_SIZE) {
        params[3].reported = ra::RESULT_SIZE;
        return TEEC_ERROR_SHORT_BUFFER;
    }
    const std::vector<uint8_t> result = ra::issue(r.certificate, r.tid);
    if (result.empty()) {
        return TEEC_ERROR_GENERIC;
    }
    store_certificate(r.uri, std::move(r.certificate));
    security::note_ra_issued();
    return params[3].put(result.data(), result.size());
}

} // namespace karst::emu
