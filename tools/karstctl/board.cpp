// cpld read|write, sigtbl, bios-4byte on|off, fpga-ready: the board's devices.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace karstctl {

namespace {

struct BoardOptions {
    std::string reg;
    std::string value;
    std::string file;
    std::string state;
};

void add_cpld(CLI::App &app, const std::shared_ptr<BoardOptions> &opts) {
    CLI::App *cpld = add_group(app, "cpld", "Read and write CPLD registers (8-bit)",
                               "  karstctl cpld read 0x00\n"
                               "  karstctl cpld write 0x21 0x5a\n");
    CLI::App *read = add_command(*cpld, "read", "Print a register: Read CPLD Reg[RR] = VV",
                                 "  karstctl cpld read 0x00\n");
    read->add_option("register", opts->reg, "Register number (0x for hexadecimal)")->required();
    read->callback([opts] {
        std::string text = opts->reg;
        check_call(
            in_session([&] { return pta_invoke_cpld_regr(PTA_DALU_CMD_CPLD_REGR, text.data()); }),
            "pta_invoke_cpld_regr");
    });
    CLI::App *write =
        add_command(*cpld, "write", "Write a register", "  karstctl cpld write 0x21 0x5a\n");
    write->add_option("register", opts->reg, "Register number (0x for hexadecimal)")->required();
    write->add_option("value", opts->value, "Value (0x for hexadecimal)")->required();
    write->callback([opts] {
        if (opts->reg.find('=') != std::string::npos) {
            throw CLI::ValidationError("register", "must not contain '='");
        }
        std::string text = opts->reg + "=" + opts->value;
        check_call(
            in_session([&] { return pta_invoke_cpld_regw(PTA_DALU_CMD_CPLD_REGW, text.data()); }),
            "pta_invoke_cpld_regw");
    });
}

void add_sigtbl(CLI::App &app, const std::shared_ptr<BoardOptions> &opts) {
    CLI::App *sigtbl = add_command(app, "sigtbl",
                                   "Decode and print the signature table at the start of a "
                                   "signed image file",
                                   "  karstctl sigtbl bios.bin\n");
    add_input_file(*sigtbl, "file", opts->file, "Signed image (its first 408 bytes are read)");
    sigtbl->callback([opts] {
        const std::vector<uint8_t> bytes = read_input(opts->file);
        uint32_t table[SIGTBL_MAX_BYTES / 4] = {0};
        std::memcpy(table, bytes.data(), std::min<size_t>(bytes.size(), sizeof table));
        sig_block blocks[SIGTBL_MAX_ENTRIES] = {};
        sig_entry sigs[SIGTBL_MAX_ENTRIES] = {};
        check_call(dalu_parse_sigtbl(table, blocks, sigs), "dalu_parse_sigtbl");
    });
}

void add_switches(CLI::App &app, const std::shared_ptr<BoardOptions> &opts) {
    CLI::App *bios = add_command(app, "bios-4byte",
                                 "Switch the BIOS flash to 4-byte (on) or 3-byte (off) addressing",
                                 "  karstctl bios-4byte on\n");
    bios->add_option("state", opts->state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    bios->callback([opts] {
        check_call(pta20_bios_set4Byte(opts->state == "on" ? 1 : 0), "pta20_bios_set4Byte");
    });

    CLI::App *fpga = add_command(app, "fpga-ready", "Tell the secure world that the FPGA is ready",
                                 "  karstctl fpga-ready\n");
    fpga->callback([] { check_call(pta20_fpga_ready(), "pta20_fpga_ready"); });
}

} // namespace

void add_board(CLI::App &app) {
    auto opts = std::make_shared<BoardOptions>();
    add_cpld(app, opts);
    add_sigtbl(app, opts);
    add_switches(app, opts);
}

} // namespace karstctl
