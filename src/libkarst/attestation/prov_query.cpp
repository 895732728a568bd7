// SPDX-License-Identifier: Apache-2.0
// Provisioning query (command 22): one yes-or-no question, answered in byte 0 of a status buffer
// (0 for yes).
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"

#include <cstring>

namespace {

constexpr uint32_t STATUS_SIZE = 64;
// The routine the query's failures are reported as, whichever call made it.
constexpr char QUERY_ROUTINE[] = "_pta_invoke_prov_query";

// The query's command; reported receives the status size the secure world reported.
int query_status(uint32_t command, uint32_t query, uint8_t *buf, uint32_t len, size_t &reported) {
    reported = 0;
    if (buf == nullptr || len == 0) {
        KARST_E_AS(QUERY_ROUTINE, "Incorrect buf or buf size\n");
        return -1;
    }
    karst::tee::Exchange tee(QUERY_ROUTINE);
    tee.value(0, query);
    if (!tee.share(1, buf, len, TEEC_MEM_OUTPUT) || !tee.invoke(command)) {
        return tee.code();
    }
    reported = tee.size_of(1);
    return 0;
}

} // namespace

extern "C" int _pta_invoke_prov_query(uint32_t command, uint32_t query, uint8_t *buf,
                                      uint32_t len) try {
    size_t reported = 0;
    return query_status(command, query, buf, len, reported);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_prov_query(uint32_t command, uint32_t query, uint8_t *buf,
                                     uint32_t len) try {
    karst::HeapBuffer own;
    if (buf == nullptr || len == 0) {
        if (!own.allocate(STATUS_SIZE)) {
            KARST_E("Failed to allocate buffer\n");
            return -1;
        }
        buf = own.data();
        len = STATUS_SIZE;
    }
    std::memset(buf, 0, len);
    // Yes only when the secure world answered a status byte, and it is 0: an answer that wrote
    // nothing leaves the zeroed buffer, which must not read as yes.
    size_t reported = 0;
    const int rc = query_status(command, query, buf, len, reported);
    return rc == 0 && reported >= 1 && buf[0] == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_prov_query(uint32_t query) try {
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, query, 0, 0, 0, 0, 0);
    return pta_invoke_cmd(PTA_DALU_CMD_PROV_QUERY, block);
} catch (...) {
    return KARST_CAUGHT(-1);
}
