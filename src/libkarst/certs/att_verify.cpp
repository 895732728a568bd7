// SPDX-License-Identifier: Apache-2.0
// Attestation verify (command 15): the secure world checks a signature file against a data
// file, both named in one argument string "data:sig".
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"

namespace {

// Splits text in place at ':' characters, skipping empty fields, into at most two fields; each
// field taken is printed on a line of its own. Returns the number of fields taken.
int split_fields(char *text, char *fields[2]) {
    int taken = 0;
    char *p = text;
    while (taken < 2) {
        while (*p == ':') {
            ++p;
        }
        if (*p == '\0') {
            break;
        }
        fields[taken++] = p;
        while (*p != '\0' && *p != ':') {
            ++p;
        }
        if (*p == ':') {
            *p++ = '\0';
        }
        KARST_PRINT("%s\n", fields[taken - 1]);
    }
    return taken;
}

} // namespace

extern "C" int pta_invoke_att_verify(uint32_t cmd, char *args) try {
    char *fields[2] = {nullptr, nullptr};
    if (args == nullptr || split_fields(args, fields) < 2) {
        KARST_PRINT("parameters should be data:sig\n");
        return -1;
    }
    karst::FileBytes data;
    karst::FileBytes signature;
    karst::tee::Exchange tee;
    if (data.read(fields[0]) != 0 || signature.read(fields[1]) != 0) {
        return -1;
    }
    if (!tee.share(0, data.data(), data.size(), TEEC_MEM_INPUT) ||
        !tee.share(1, signature.data(), signature.size(), TEEC_MEM_INPUT) || !tee.invoke(cmd)) {
        return tee.code();
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
