// SPDX-License-Identifier: Apache-2.0
// otp getkey|prog-usr|getsn: OTP keys, the OTP user area and the board serial number.
#include "common.hpp"
#include "families.hpp"
#include "operands.hpp"

#include "core/heap_buffer.hpp"
#include "karst.h"

#include <cstdio>
#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t KEY_SIZE = 32;
constexpr uint32_t LAST_KEY = 0x1f;
constexpr uint32_t USER_AREA_SIZE = 1024;
constexpr uint32_t SERIAL_ROOM = 64;

struct OtpOptions {
    uint32_t key = 0;
    uint32_t offset = 0;
    std::string hex;
    std::string file;
    std::string output;
};

std::vector<uint8_t> from_hex(const std::string &text) {
    if (text.empty() || text.size() % 2 != 0) {
        fail(Status::bad_input, "--hex: an even number of hexadecimal digits is needed");
    }
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const std::optional<uint64_t> byte = parse_unsigned(text.substr(i, 2), true);
        if (!byte) {
            fail(Status::bad_input, "--hex: not hexadecimal: " + text.substr(i, 2));
        }
        bytes.push_back(static_cast<uint8_t>(*byte));
    }
    return bytes;
}

void add_getkey(CLI::App &otp, const std::shared_ptr<OtpOptions> &opts) {
    CLI::App *getkey = add_command(otp, "getkey", "Read a 32-byte OTP key (printed in hexadecimal)",
                                   "  karstctl otp getkey 3\n"
                                   "  karstctl otp getkey 0x03 -o key3.bin\n");
    add_number(*getkey, "key", opts->key, "Key number", 0, LAST_KEY)->required();
    add_output(*getkey, opts->output, "Write the key's bytes to this file instead");
    getkey->callback([opts] {
        // Key bytes live only here, wiped on every path; printed digit by digit, so that no
        // string of the heap ever holds them.
        struct Key {
            uint8_t bytes[KEY_SIZE] = {0};
            ~Key() { karst::wipe_memory(bytes, sizeof bytes); }
        } key;
        run_call("pta_invoke_otp_get_key", [&] {
            return pta_invoke_otp_get_key(PTA_DALU_CMD_OTP_GET_KEY, opts->key, key.bytes,
                                          sizeof key.bytes);
        });
        if (opts->output.empty()) {
            for (const uint8_t byte : key.bytes) {
                std::printf("%02x", byte);
            }
            std::printf("\n");
        } else {
            write_secret(opts->output, key.bytes, sizeof key.bytes);
        }
    });
}

void add_prog_usr(CLI::App &otp, const std::shared_ptr<OtpOptions> &opts) {
    CLI::App *prog = add_command(otp, "prog-usr",
                                 "Program bytes of the OTP user area (1,024 bytes; a byte "
                                 "programmed stays so)",
                                 "  karstctl otp prog-usr 0x10 --hex 5aa5\n"
                                 "  karstctl otp prog-usr 0 --file user.bin\n");
    add_number(*prog, "offset", opts->offset, "Offset in the user area", 0, USER_AREA_SIZE - 1)
        ->required();
    CLI::Option *hex = prog->add_option("--hex", opts->hex, "Bytes in hexadecimal");
    CLI::Option *file =
        prog->add_option("--file", opts->file, "File holding the bytes")->check(CLI::ExistingFile);
    hex->excludes(file);
    prog->callback([opts, hex, file] {
        if (hex->count() + file->count() != 1) {
            fail(Status::bad_input, "--hex or --file is needed");
        }
        std::vector<uint8_t> bytes =
            opts->file.empty() ? from_hex(opts->hex) : read_input(opts->file);
        if (bytes.empty() || bytes.size() > USER_AREA_SIZE - opts->offset) {
            fail(Status::bad_input, std::to_string(bytes.size()) + " bytes from offset " +
                                        std::to_string(opts->offset) +
                                        " do not fit the 1,024-byte user area");
        }
        run_call("pta_invoke_otp_prog_usr", [&] {
            return pta_invoke_otp_prog_usr(PTA_DALU_CMD_OTP_PROG_USR, opts->offset, bytes.data(),
                                           static_cast<uint32_t>(bytes.size()));
        });
    });
}

void add_getsn(CLI::App &otp, const std::shared_ptr<OtpOptions> &opts) {
    CLI::App *getsn = add_command(otp, "getsn", "Print the board serial number",
                                  "  karstctl otp getsn\n"
                                  "  karstctl otp getsn -o serial.txt\n");
    add_output(*getsn, opts->output, "Write the serial number to this file instead");
    getsn->callback([opts] {
        char serial[SERIAL_ROOM] = {0};
        uint32_t length = 0;
        run_call("pta20_otp_board_sn_get",
                 [&] { return pta20_otp_board_sn_get(&length, serial, sizeof serial - 1); });
        emit(opts->output, bounded_text(serial, sizeof serial));
    });
}

} // namespace

void add_otp(CLI::App &app) {
    auto opts = std::make_shared<OtpOptions>();
    CLI::App *otp = add_group(app, "otp", "OTP keys, the OTP user area, the board serial number",
                              "  karstctl otp getsn\n"
                              "  karstctl otp getkey 0x03 -o key3.bin\n");
    add_getkey(*otp, opts);
    add_prog_usr(*otp, opts);
    add_getsn(*otp, opts);
}

} // namespace karstctl
