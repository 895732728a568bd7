// SPDX-License-Identifier: Apache-2.0
// Certificate signing request (command 13): the secure world signs a request with a key that
// never leaves it; the library sends the request's input bytes and writes the CSR it gets back.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "output_file.hpp"

#include <algorithm>

namespace {

constexpr size_t CSR_SIZE = 2048;

// The request's input bytes: the caller's, or the whole file at in_path.
struct Input {
    const void *data;
    uint32_t size;
};

// Checks the arguments (either a file, with no bytes, or bytes, with no file) and, for a file,
// reads it into file and points input at it. False, reported at site, on any failure.
bool take_input(const char *out_path, const char *in_path, karst::FileBytes &file, Input &input,
                karst::log::Site site) {
    const bool file_mode = in_path != nullptr;
    if (out_path == nullptr || (file_mode ? (input.data != nullptr || input.size != 0)
                                          : (input.data == nullptr || input.size == 0))) {
        KARST_E_AT(site, "Error parameters\n");
        return false;
    }
    if (!file_mode) {
        return true;
    }
    if (karst::same_file(out_path, in_path)) {
        KARST_E_AT(site, "Output file %s is the input file\n", out_path);
        return false;
    }
    if (file.read(in_path) != 0) {
        KARST_E_AT(site, "File %s not exist\n", in_path);
        return false;
    }
    input = Input{file.data(), file.size()};
    return true;
}

} // namespace

extern "C" int pta_invoke_gen_csr(uint32_t cmd, const char *out_path, const void *data,
                                  uint32_t len, const char *in_path) try {
    karst::HeapBuffer csr;
    karst::FileBytes file;
    karst::tee::Exchange tee;
    if (!csr.allocate(CSR_SIZE, true)) {
        KARST_E("Failed to allocate csr buffer\n");
        return -1;
    }
    if (!tee.share(1, csr, TEEC_MEM_OUTPUT)) {
        return -1;
    }
    Input input{data, len};
    // Input only: the secure world reads the request's bytes.
    if (!take_input(out_path, in_path, file, input, KARST_SITE) ||
        !tee.share(2, const_cast<void *>(input.data), input.size, TEEC_MEM_INPUT)) {
        return -1;
    }
    tee.value(0, 0);
    if (!tee.invoke(cmd)) {
        return tee.code();
    }
    // Only what the secure world reports, never more than the buffer it was given.
    const size_t n = std::min(tee.size_of(1), csr.size());
    return karst::certs::write_output(out_path, csr.data(), n, KARST_SITE) ? 0 : -1;
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
    const karst::tee::SessionScope session;
    return session.open() && pta_invoke_gen_csr_import(out_path, data, len) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
