// SPDX-License-Identifier: Apache-2.0
// The body of both certificate replacement routines: the URI key, the payload (a certificate
// data block built from a file, or the caller's bytes), the invoke and, for the remote
// attestation certificate, the archive of the answer.
#include "replace_crt.hpp"

#include "karst.h"

#include "core/exchange.hpp"
#include "core/log.hpp"

#include <cstdio>
#include <cstring>

namespace karst::certs {
namespace {

// The URI key into uri (URI_SIZE bytes, zeroed). False when a given URI does not fit.
bool form_uri(const ReplaceRequest &r, char *uri) {
    if (r.uri != nullptr) {
        const size_t n = std::strlen(r.uri);
        if (n + 1 > URI_SIZE) {
            KARST_E_AS(r.routine, "long uri\n");
            return false;
        }
        std::memcpy(uri, r.uri, n + 1);
        return true;
    }
    // Any index fits: the text is cut to the buffer (an index of more than 8 digits loses its
    // last digits rather than overrunning it).
    std::snprintf(uri, URI_SIZE, "Systems/1/Certificates/%d", static_cast<int>(r.index));
    return true;
}

// The URI key as input parameter 0 (its text and terminating zero only).
bool share_uri(const ReplaceRequest &r, tee::Exchange &tee, HeapBuffer &uri) {
    if (!uri.allocate(URI_SIZE, true)) {
        KARST_E_AS(r.routine, "Failed to allocate input buffer\n");
        return false;
    }
    return form_uri(r, uri.chars()) &&
           tee.share(0, uri.data(), std::strlen(uri.chars()) + 1, TEEC_MEM_INPUT);
}

// The payload as input parameter 1: a certificate data block built into block from the file,
// or the caller's bytes as they are.
bool share_payload(const ReplaceRequest &r, tee::Exchange &tee, const char *uri,
                   HeapBuffer &block) {
    if (r.file == nullptr) {
        // Input only: the secure world reads the caller's bytes.
        return tee.share(1, const_cast<void *>(r.data), r.len, TEEC_MEM_INPUT);
    }
    return build_certificate_block(r, uri, block) && tee.share(1, block, TEEC_MEM_INPUT);
}

// Command 27's answer buffer as output parameter 3.
bool share_ra_result(const ReplaceRequest &r, tee::Exchange &tee, HeapBuffer &result) {
    if (!result.allocate(RA_RESULT_SIZE, true)) {
        KARST_E_AS(r.routine, "Failed to allocate input buffer\n");
        return false;
    }
    return tee.share(3, result, TEEC_MEM_OUTPUT);
}

} // namespace

int replace_certificate(const ReplaceRequest &r) {
    const bool file_mode = r.file != nullptr;
    if (file_mode ? (r.data != nullptr || r.len != 0) : (r.data == nullptr || r.len == 0)) {
        KARST_E_AS(r.routine, "Error parameters\n");
        return -1;
    }
    HeapBuffer uri;
    HeapBuffer block;
    HeapBuffer result;
    tee::Exchange tee(r.routine);
    if (!share_uri(r, tee, uri) || !share_payload(r, tee, uri.chars(), block)) {
        return -1;
    }
    tee.value(2, r.option);
    if (r.remote_attestation && !share_ra_result(r, tee, result)) {
        return -1;
    }
    if (!tee.invoke(r.command)) {
        return -1;
    }
    if (r.remote_attestation &&
        !archive_ra_result({r.routine, __LINE__}, result.data(), result.size())) {
        return -1;
    }
    return 0;
}

} // namespace karst::certs
