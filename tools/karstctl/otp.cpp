// otp getkey|prog-usr|getsn: OTP keys, the OTP user area and the board serial number.
#include "common.hpp"
#include "families.hpp"

#include "core/heap_buffer.hpp"
#include "karst.h"

#include <cstdio>
#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t KEY_SIZE = 32;
constexpr uint32_t SERIAL_ROOM = 64;

struct OtpOptions {
    uint32_t key = 0;
    uint32_t offset = 0;
    std::string hex;
    std::string file;
    std::string output;
};

std::vector<uint8_t> from_hex(const std::string &text) {
    std::vector<uint8_t> bytes;
    if (text.empty() || text.size() % 2 != 0) {
        throw CLI::ValidationError("--hex", "an even number of hexadecimal digits is needed");
    }
    for (size_t i = 0; i < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            throw CLI::ValidationError("--hex", "not hexadecimal: " + pair);
        }
        bytes.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
    }
    return bytes;
}

void add_getkey(CLI::App &otp, const std::shared_ptr<OtpOptions> &opts) {
    CLI::App *getkey = add_command(otp, "getkey", "Read a 32-byte OTP key (printed in hexadecimal)",
                                   "  karstctl otp getkey 3\n"
                                   "  karstctl otp getkey 0x03 -o key3.bin\n");
    getkey->add_option("key", opts->key, "Key number (0x00 to 0x1f)")->required();
    getkey->add_option("-o,--output", opts->output, "Write the key's bytes to this file instead");
    getkey->callback([opts] {
        // Key bytes live only here, wiped on every path; printed digit by digit, so that no
        // string of the heap ever holds them.
        struct Key {
            uint8_t bytes[KEY_SIZE] = {0};
            ~Key() { karst::wipe_memory(bytes, sizeof bytes); }
        } key;
        check_call(pta_invoke_otp_get_key(PTA_DALU_CMD_OTP_GET_KEY, opts->key, key.bytes,
                                          sizeof key.bytes),
                   "pta_invoke_otp_get_key");
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
    prog->add_option("offset", opts->offset, "Offset in the user area")->required();
    CLI::Option *hex = prog->add_option("--hex", opts->hex, "Bytes in hexadecimal");
    CLI::Option *file =
        prog->add_option("--file", opts->file, "File holding the bytes")->check(CLI::ExistingFile);
    hex->excludes(file);
    prog->callback([opts, hex, file] {
        if (hex->count() + file->count() != 1) {
            throw CLI::RequiredError("--hex or --file");
        }
        std::vector<uint8_t> bytes =
            opts->file.empty() ? from_hex(opts->hex) : read_input(opts->file);
        if (bytes.empty()) {
            fail(Status::file_failed, "no bytes to program");
        }
        check_call(pta_invoke_otp_prog_usr(PTA_DALU_CMD_OTP_PROG_USR, opts->offset, bytes.data(),
                                           static_cast<uint32_t>(bytes.size())),
                   "pta_invoke_otp_prog_usr");
    });
}

void add_getsn(CLI::App &otp, const std::shared_ptr<OtpOptions> &opts) {
    CLI::App *getsn = add_command(otp, "getsn", "Print the board serial number",
                                  "  karstctl otp getsn\n"
                                  "  karstctl otp getsn -o serial.txt\n");
    getsn->add_option("-o,--output", opts->output, "Write the serial number to this file instead");
    getsn->callback([opts] {
        char serial[SERIAL_ROOM] = {0};
        uint32_t length = 0;
        check_call(pta20_otp_board_sn_get(&length, serial, sizeof serial - 1),
                   "pta20_otp_board_sn_get");
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
