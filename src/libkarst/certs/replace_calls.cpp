// SPDX-License-Identifier: Apache-2.0
// The exported entries of certificate replacement: the two command routines of the dispatcher,
// the import bodies and the calls that open a session around them.
#include "replace_crt.hpp"

#include "karst.h"

#include "core/boundary.hpp"
#include "core/session_scope.hpp"

namespace {

using karst::certs::replace_certificate;
using karst::certs::ReplaceRequest;
using karst::tee::SessionScope;

constexpr uint32_t FIRST_INDEX = 1;
constexpr uint32_t LAST_INDEX = 5;

} // namespace

extern "C" int pta_invoke_replace_crt(uint32_t cmd, uint32_t index, const char *uri,
                                      uint32_t option, const char *file, const void *data,
                                      uint32_t len) try {
    return replace_certificate(
        ReplaceRequest{__func__, cmd, false, index, uri, option, file, data, len});
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_replace_ra_crt(uint32_t cmd, uint32_t index, const char *uri,
                                         uint32_t option, const char *file, const void *data,
                                         uint32_t len) try {
    return replace_certificate(
        ReplaceRequest{__func__, cmd, true, index, uri, option, file, data, len});
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_replace_crt_import(const char *uri, const void *data, uint32_t len,
                                             uint32_t option) try {
    return pta_invoke_replace_crt(PTA_DALU_CMD_REPLACE_CRT, 0, uri, option, nullptr, data, len);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_replace_ra_crt_import(const char *uri, const void *data, uint32_t len,
                                                uint32_t option) try {
    return pta_invoke_replace_ra_crt(PTA_DALU_CMD_REPLACE_RA_CRT, 0, uri, option, nullptr, data,
                                     len);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_crt_replace(uint32_t index, const char *path, uint32_t option) try {
    if (index < FIRST_INDEX || index > LAST_INDEX) {
        return -1;
    }
    const SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, index, option, 0, reinterpret_cast<uintptr_t>(path), 0, 0);
    return pta_invoke_cmd(PTA_DALU_CMD_REPLACE_CRT, block);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_crt_replace_import(const char *uri, const void *data, uint32_t len,
                                        uint32_t option) try {
    const SessionScope session;
    return session.open() ? pta_invoke_replace_crt_import(uri, data, len, option) : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_ra_crt_replace_import(const char *uri, const void *data, uint32_t len,
                                           uint32_t option) try {
    const SessionScope session;
    return session.open() ? pta_invoke_replace_ra_crt_import(uri, data, len, option) : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
