// Certificate signing request (command 13): the secure world signs a request with a key that
// never leaves it; the library sends the request's input bytes and writes the CSR it gets back.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <algorithm>

namespace {

constexpr size_t CSR_SIZE = 2048;

} // namespace

extern "C" int pta_invoke_gen_csr(uint32_t cmd, const char *out_path, const void *data,
                                  uint32_t len, const char *in_path) try {
    using namespace karst::tee;

    SharedBuffer csr;
    if (!csr.allocate(CSR_SIZE, true)) {
        KARST_E("Failed to allocate csr buffer\n");
        return -1;
    }
    if (TEEC_Result res = csr.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    const bool file_mode = in_path != nullptr;
    if (out_path == nullptr ||
        (file_mode ? (data != nullptr || len != 0) : (data == nullptr || len == 0))) {
        KARST_E("Error parameters\n");
        return -1;
    }
    if (file_mode && karst::same_file(out_path, in_path)) {
        KARST_E("Output file %s is the input file\n", out_path);
        return -1;
    }
    karst::FileBytes file;
    const void *input = data;
    uint32_t input_len = len;
    if (file_mode) {
        if (file.read(in_path) != 0) {
            KARST_E("File %s not exist\n", in_path);
            return -1;
        }
        input = file.data();
        input_len = file.size();
    }
    SharedRegion input_shm;
    if (TEEC_Result res = input_shm.share(const_cast<void *>(input), input_len, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.value(0, 0).whole(1, csr).whole(2, input_shm);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }

    karst::File out = karst::File::open(out_path, "wb");
    if (!out) {
        KARST_E("Failed to open file:%s\n", out_path);
        return -1;
    }
    // Only what the secure world reports, never more than the buffer it was given.
    const size_t n = std::min(op.size_of(1), csr.size());
    if (n > 0) {
        std::fwrite(csr.data(), 1, n, out.get());
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_gen_csr_import(const char *out_path, const void *data, uint32_t len) try {
    return pta_invoke_gen_csr(PTA_DALU_CMD_GEN_CSR, out_path, data, len, nullptr);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_gen_csr_import(const char *out_path, const void *data, uint32_t len) try {
    if (out_path == nullptr || data == nullptr) {
        return -1;
    }
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = pta_invoke_gen_csr_import(out_path, data, len);
    pta_close_session();
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
