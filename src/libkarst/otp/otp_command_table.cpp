// SPDX-License-Identifier: Apache-2.0
// The otp tool's front end: its sub-command table, the dispatcher over it, the usage text and
// the entry its main program calls.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"

#include <cstring>

extern "C" {

const otp_command cmd_otp[OTP_COMMAND_COUNT] = {
    {"version", otp_ver},       {"read", otp_read},    {"getkey", otp_get_key},
    {"prog_usr", otp_prog_usr}, {"getsn", otp_get_sn},
};

int32_t usage(void) try {
    KARST_PRINT("usage:\n");
    KARST_PRINT("otp getkey <keyid> <output>\n");
    KARST_PRINT("otp prog_usr <offset> <data>\n");
    KARST_PRINT("otp getsn <offset> <data>\n");
    return -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t pta_invoke_cmd_otp(int32_t argc, char **argv) try {
    if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
        return usage();
    }
    for (const otp_command &command : cmd_otp) {
        if (std::strcmp(argv[0], command.name) == 0) {
            return command.handler(argc - 1, argv + 1);
        }
    }
    return usage();
} catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t otp_main(int32_t argc, char **argv) try {
    pta_invoke_cmd_otp(argc, argv); // the program's status is always 0: messages tell failures
    return 0;
} catch (...) {
    return KARST_CAUGHT(0);
}

} // extern "C"
