// SPDX-License-Identifier: Apache-2.0
// Handlers of the otp tool's sub-commands. Each takes the operands that follow the
// sub-command's name; operands beyond those it names are ignored.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t KEY_BUFFER_SIZE = 64;
constexpr uint32_t SERIAL_BUFFER_SIZE = 64;

// An operand as an unsigned hexadecimal number: an optional 0x prefix, reading stops at the
// first character that is not a hexadecimal digit, no digits give 0.
uint32_t hex_operand(const char *text) {
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 16));
}

} // namespace

extern "C" {

int32_t otp_ver(int32_t, char **) try { return 0; } catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t otp_read(int32_t, char **) try { return 0; } catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t otp_get_key(int32_t argc, char **argv) try {
    if (argc < 2) {
        return usage();
    }
    // Zeroed: after a failed read the output file holds zero bytes, never old heap contents;
    // wiped before it is freed.
    karst::SecretBuffer key;
    if (!key.allocate(KEY_BUFFER_SIZE)) {
        return -1;
    }
    const int rc = pta_invoke_otp_get_key(PTA_DALU_CMD_OTP_GET_KEY, hex_operand(argv[0]),
                                          key.data(), KEY_BUFFER_SIZE);
    // The handler's result is the read's, as the interface has it; a key file that could not be
    // written is reported (an open failure as writebin's message) but does not change it.
    karst::write_secret_file(argv[1], key.data(), KEY_BUFFER_SIZE);
    return rc;
} catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t otp_prog_usr(int32_t argc, char **argv) try {
    if (argc < 2) {
        return usage();
    }
    const uint32_t offset = hex_operand(argv[0]);
    karst::FileBytes data;
    if (data.read(argv[1]) != 0) {
        return -1;
    }
    return pta_invoke_otp_prog_usr(PTA_DALU_CMD_OTP_PROG_USR, offset, data.data(), data.size());
} catch (...) {
    return KARST_CAUGHT(-1);
}

int32_t otp_get_sn(int32_t, char **) try {
    uint32_t word = 0;
    char serial[SERIAL_BUFFER_SIZE] = {};
    const int rc =
        pta_invoke_otp_get_board_sn(PTA_DALU_CMD_BOARD_SN_GET, &word, serial, sizeof serial);
    if (rc == 0) {
        // The serial number as text, up to its terminating zero or the buffer's end.
        KARST_PRINT("%.*s\n", static_cast<int>(strnlen(serial, sizeof serial)), serial);
    }
    return rc;
} catch (...) {
    return KARST_CAUGHT(-1);
}

} // extern "C"
