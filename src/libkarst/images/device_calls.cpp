// SPDX-License-Identifier: Apache-2.0
// Two small device calls around firmware work: the FPGA-ready command (25, no parameters) and
// the BIOS flash's 3- or 4-byte address mode, switched by a CPLD register write.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/session_scope.hpp"

#include <cstring>

using namespace karst;

extern "C" int pta_invoke_fpga_ready(uint32_t cmd) try {
    tee::Exchange tee;
    return tee.invoke_bare(cmd) ? 0 : tee.code();
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_fpga_ready(void) try {
    tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    return pta_invoke_fpga_ready(PTA_DALU_CMD_FPGA_READY) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_bios_set4Byte(uint32_t enable) try {
    // The serial flash opcodes: 0xB7 enters 4-byte address mode, 0xE9 leaves it. The register
    // write splits its text in place, so it gets a copy of its own.
    char request[8];
    std::strcpy(request, enable != 0 ? "0xb7=0" : "0xe9=0");
    tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(request), 0, 0);
    return pta_invoke_cmd(PTA_DALU_CMD_CPLD_REGW, block) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
