// The body of both certificate replacement routines: the URI key, the payload (a certificate
// data block built from a file, or the caller's bytes), the invoke and, for the remote
// attestation certificate, the archive of the answer.
#include "replace_crt.hpp"

#include "karst.h"

#include "core/log.hpp"
#include "core/shared_buffer.hpp"

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

} // namespace

int replace_certificate(const ReplaceRequest &r) {
    using namespace karst::tee;

    const bool file_mode = r.file != nullptr;
    if (file_mode ? (r.data != nullptr || r.len != 0) : (r.data == nullptr || r.len == 0)) {
        KARST_E_AS(r.routine, "Error parameters\n");
        return -1;
    }

    HeapBuffer uri;
    if (!uri.allocate(URI_SIZE, true)) {
        KARST_E_AS(r.routine, "Failed to allocate input buffer\n");
        return -1;
    }
    if (!form_uri(r, uri.chars())) {
        return -1;
    }
    SharedRegion uri_shm;
    if (TEEC_Result res = uri_shm.share(uri.data(), std::strlen(uri.chars()) + 1, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E_AS(r.routine, "TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    HeapBuffer block;
    void *payload = const_cast<void *>(r.data); // input only: the secure world reads it
    size_t payload_size = r.len;
    if (file_mode) {
        if (!build_certificate_block(r, uri.chars(), block)) {
            return -1;
        }
        payload = block.data();
        payload_size = block.size();
    }
    SharedRegion payload_shm;
    if (TEEC_Result res = payload_shm.share(payload, payload_size, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E_AS(r.routine, "TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    SharedBuffer result;
    Operation op;
    op.whole(0, uri_shm).whole(1, payload_shm).value(2, r.option);
    if (r.remote_attestation) {
        if (!result.allocate(RA_RESULT_SIZE, true)) {
            KARST_E_AS(r.routine, "Failed to allocate input buffer\n");
            return -1;
        }
        if (TEEC_Result res = result.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
            KARST_E_AS(r.routine, "TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
            return -1;
        }
        op.whole(3, result);
    }

    uint32_t origin = 0;
    if (TEEC_Result res = invoke(r.command, op, origin); res != TEEC_SUCCESS) {
        KARST_E_AS(r.routine, "TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res,
                   origin);
        return -1;
    }
    if (r.remote_attestation &&
        !archive_ra_result({r.routine, __LINE__}, result.data(), result.size())) {
        return -1;
    }
    return 0;
}

} // namespace karst::certs
