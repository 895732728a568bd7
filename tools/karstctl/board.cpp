// SPDX-License-Identifier: Apache-2.0
// cpld read|write, sigtbl, bios-4byte on|off, fpga-ready: the board's devices.
#include "common.hpp"
#include "families.hpp"
#include "json.hpp"
#include "operands.hpp"

#include "karst.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t BYTE_MAX = 0xff;

struct BoardOptions {
    uint32_t reg = 0;
    uint32_t value = 0;
    std::string file;
    std::string state;
    bool json = false;
};

// A register or value as the library reads it (strtoul with base 0: "0x" for hexadecimal).
std::string byte_text(uint32_t byte) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", byte);
    return text;
}

void add_cpld(CLI::App &app, const std::shared_ptr<BoardOptions> &opts) {
    CLI::App *cpld = add_group(app, "cpld", "Read and write CPLD registers (8-bit)",
                               "  karstctl cpld read 0x00\n"
                               "  karstctl cpld write 0x21 0x5a\n");
    CLI::App *read = add_command(*cpld, "read", "Print a register's value (0xVV)",
                                 "  karstctl cpld read 0x00\n");
    add_number(*read, "register", opts->reg, "Register", 0, BYTE_MAX)->required();
    read->callback([opts] {
        std::string text = byte_text(opts->reg);
        std::string lines;
        check_call(library_kept(lines,
                                [&] {
                                    return in_session([&] {
                                        return pta_invoke_cpld_regr(PTA_DALU_CMD_CPLD_REGR,
                                                                    text.data());
                                    });
                                }),
                   "pta_invoke_cpld_regr");
        const size_t line = lines.find("Read CPLD Reg[");
        unsigned reg = 0;
        unsigned value = 0;
        if (line == std::string::npos ||
            std::sscanf(lines.c_str() + line, "Read CPLD Reg[%x] = %x", &reg, &value) != 2) {
            fail(Status::call_failed, "pta_invoke_cpld_regr printed no value");
        }
        std::printf("%s\n", byte_text(value).c_str());
    });
    CLI::App *write =
        add_command(*cpld, "write", "Write a register", "  karstctl cpld write 0x21 0x5a\n");
    add_number(*write, "register", opts->reg, "Register", 0, BYTE_MAX)->required();
    add_number(*write, "value", opts->value, "Value", 0, BYTE_MAX)->required();
    write->callback([opts] {
        std::string text = byte_text(opts->reg) + "=" + byte_text(opts->value);
        run_call("pta_invoke_cpld_regw", [&] {
            return in_session(
                [&] { return pta_invoke_cpld_regw(PTA_DALU_CMD_CPLD_REGW, text.data()); });
        });
    });
}

void print_table(const sig_block *blocks, const sig_entry *sigs, bool json) {
    std::vector<JsonObject> block_items;
    std::vector<JsonObject> sig_items;
    for (int i = 0; i < SIGTBL_MAX_ENTRIES && (i == 0 || blocks[i - 1].flag != 0); ++i) {
        block_items.push_back(
            JsonObject().number("address", blocks[i].address).number("size", blocks[i].size));
        if (!json) {
            std::printf("block 0x%08x 0x%08x\n", blocks[i].address, blocks[i].size);
        }
    }
    for (int i = 0; i < SIGTBL_MAX_ENTRIES && (i == 0 || sigs[i - 1].flag != 0); ++i) {
        sig_items.push_back(JsonObject()
                                .number("offset", sigs[i].offset)
                                .number("boot_id_offset", sigs[i].boot_id_offset));
        if (!json) {
            std::printf("signature 0x%08x 0x%08x\n", sigs[i].offset, sigs[i].boot_id_offset);
        }
    }
    if (json) {
        print_json(JsonObject().array("blocks", block_items).array("signatures", sig_items));
    }
}

void add_sigtbl(CLI::App &app, const std::shared_ptr<BoardOptions> &opts) {
    CLI::App *sigtbl = add_command(app, "sigtbl",
                                   "Decode the signature table at the start of a signed image:\n"
                                   "prints 'block ADDRESS SIZE' and 'signature OFFSET "
                                   "BOOT_ID_OFFSET' lines (the\nlibrary's decoding goes to "
                                   "standard error)",
                                   "  karstctl sigtbl bios.bin\n"
                                   "  karstctl sigtbl bios.bin --json\n");
    add_input_file(*sigtbl, "file", opts->file, "Signed image (its first 408 bytes are read)");
    add_json(*sigtbl, opts->json);
    sigtbl->callback([opts] {
        const std::vector<uint8_t> bytes = read_input(opts->file);
        uint32_t table[SIGTBL_MAX_BYTES / 4] = {0};
        if (!bytes.empty()) {
            std::memcpy(table, bytes.data(), std::min<size_t>(bytes.size(), sizeof table));
        }
        sig_block blocks[SIGTBL_MAX_ENTRIES] = {};
        sig_entry sigs[SIGTBL_MAX_ENTRIES] = {};
        run_call("dalu_parse_sigtbl", [&] { return dalu_parse_sigtbl(table, blocks, sigs); });
        print_table(blocks, sigs, opts->json);
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
        run_call("pta20_bios_set4Byte",
                 [&] { return pta20_bios_set4Byte(opts->state == "on" ? 1 : 0); });
    });

    CLI::App *fpga = add_command(app, "fpga-ready", "Tell the secure world that the FPGA is ready",
                                 "  karstctl fpga-ready\n");
    fpga->callback([] { run_call("pta20_fpga_ready", [] { return pta20_fpga_ready(); }); });
}

} // namespace

void add_board(CLI::App &app) {
    auto opts = std::make_shared<BoardOptions>();
    add_cpld(app, opts);
    add_sigtbl(app, opts);
    add_switches(app, opts);
}

} // namespace karstctl
