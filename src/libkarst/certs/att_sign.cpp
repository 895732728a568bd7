// SPDX-License-Identifier: Apache-2.0
// Attestation sign (command 14): the secure world signs a file's bytes; the signature is
// written beside the file as "<file>.sig".
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "output_file.hpp"

#include <algorithm>
#include <cstdio>

namespace {

constexpr size_t SIGNATURE_SIZE = 1024;
constexpr size_t SIG_PATH_SIZE = 64; // the signature path is cut to 63 characters

// "<path>.sig", cut to the buffer. False, reported at site, when the cut brings it back onto
// the data path (a data path of exactly 63 characters): the signature would then overwrite the
// file it signs.
bool form_signature_path(const char *path, char (&sig_path)[SIG_PATH_SIZE], karst::log::Site site) {
    std::snprintf(sig_path, sizeof sig_path, "%s.sig", path);
    if (karst::same_file(sig_path, path)) {
        KARST_E_AT(site, "Signature path %s is the signed file itself\n", sig_path);
        return false;
    }
    return true;
}

} // namespace

extern "C" int pta_invoke_att_sign(uint32_t cmd, uint32_t option, const char *path) try {
    char sig_path[SIG_PATH_SIZE];
    if (path == nullptr || !form_signature_path(path, sig_path, KARST_SITE)) {
        return -1;
    }
    karst::FileBytes data;
    karst::HeapBuffer signature;
    karst::tee::Exchange tee;
    if (data.read(path) != 0) {
        return -1;
    }
    if (!tee.share(1, data.data(), data.size(), TEEC_MEM_INPUT)) {
        return tee.code();
    }
    if (!signature.allocate(SIGNATURE_SIZE, true)) {
        KARST_E("Failed to allocate buffer\n");
        return -1;
    }
    tee.value(0, option);
    if (!tee.share(2, signature, TEEC_MEM_OUTPUT) || !tee.invoke(cmd)) {
        return tee.code();
    }
    const size_t n = std::min(tee.size_of(2), signature.size());
    return karst::certs::write_output(sig_path, signature.data(), n, KARST_SITE) ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
