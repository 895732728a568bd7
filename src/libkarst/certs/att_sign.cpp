// Attestation sign (command 14): the secure world signs a file's bytes; the signature is
// written beside the file as "<file>.sig".
#include "karst.h"

#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <algorithm>
#include <cstdio>

namespace {

constexpr size_t SIGNATURE_SIZE = 1024;
constexpr size_t SIG_PATH_SIZE = 64; // the signature path is cut to 63 characters

} // namespace

extern "C" int pta_invoke_att_sign(uint32_t cmd, uint32_t option, const char *path) try {
    using namespace karst::tee;

    if (path == nullptr) {
        return -1;
    }
    char sig_path[SIG_PATH_SIZE];
    std::snprintf(sig_path, sizeof sig_path, "%s.sig", path);
    // The cut can bring the signature path back onto the data path (a data path of exactly 63
    // characters): the signature would then overwrite the file it signs.
    if (karst::same_file(sig_path, path)) {
        KARST_E("Signature path %s is the signed file itself\n", sig_path);
        return -1;
    }

    karst::FileBytes data;
    if (data.read(path) != 0) {
        return -1;
    }
    SharedRegion data_shm;
    if (TEEC_Result res = data_shm.share(data.data(), data.size(), TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }
    SharedBuffer signature;
    if (!signature.allocate(SIGNATURE_SIZE, true)) {
        KARST_E("Failed to allocate buffer\n");
        return -1;
    }
    if (TEEC_Result res = signature.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }

    Operation op;
    op.value(0, option).whole(1, data_shm).whole(2, signature);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }

    karst::File out = karst::File::open(sig_path, "wb");
    if (!out) {
        KARST_E("Failed to open file:%s\n", sig_path);
        return -1;
    }
    const size_t n = std::min(op.size_of(2), signature.size());
    if (n > 0) {
        std::fwrite(signature.data(), 1, n, out.get());
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
