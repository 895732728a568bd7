// SPDX-License-Identifier: Apache-2.0
// memreg: secure registers.
#include "common.hpp"
#include "families.hpp"
#include "json.hpp"
#include "operands.hpp"

#include "karst.h"

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <sstream>

namespace karstctl {

namespace {

constexpr uint32_t MAX_COUNT = 64;
// Registers are 32-bit words at addresses that are a multiple of their size.
constexpr uint32_t REGISTER_SIZE = 4;

struct MemregOptions {
    std::string address;
    uint32_t count = 1;
    bool json = false;
};

// The address operand: hexadecimal (with or without 0x), 32 bits, a register's alignment.
// Handed to the library as eight hexadecimal digits.
CLI::Validator register_address() {
    return {[](std::string &text) -> std::string {
                const std::optional<uint64_t> address = parse_unsigned(text, true);
                if (!address || *address > UINT32_MAX) {
                    return "not a 32-bit hexadecimal address: '" + text + "'";
                }
                if (*address % REGISTER_SIZE != 0) {
                    return "not a register's address (a multiple of 4): " + text;
                }
                char digits[16];
                std::snprintf(digits, sizeof digits, "%08" PRIx64, *address);
                text = digits;
                return {};
            },
            "", "address"};
}

struct Register {
    uint32_t address;
    uint32_t value;
};

// The registers in the lines the library printed for them.
std::vector<Register> registers_in(const std::string &lines) {
    std::vector<Register> registers;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        Register r{};
        if (std::sscanf(line.c_str(),
                        "Read secure info from register addr:[%" SCNx32 "] --> value:[%" SCNx32 "]",
                        &r.address, &r.value) == 2) {
            registers.push_back(r);
        }
    }
    return registers;
}

void print_registers(const std::vector<Register> &registers, bool json) {
    std::vector<JsonObject> items;
    for (const Register &r : registers) {
        if (json) {
            items.push_back(JsonObject().number("address", r.address).number("value", r.value));
        } else {
            std::printf("%08" PRIx32 " %08" PRIx32 "\n", r.address, r.value);
        }
    }
    if (json) {
        print_json(JsonObject().array("registers", items));
    }
}

} // namespace

void add_memreg(CLI::App &app) {
    auto opts = std::make_shared<MemregOptions>();
    CLI::App *memreg =
        add_command(app, "memreg",
                    "Read consecutive 32-bit secure registers; prints ADDRESS VALUE per register\n"
                    "(eight hexadecimal digits each)",
                    "  karstctl memreg 1e6e2070\n"
                    "  karstctl memreg 0x1e6e2070 4 --json\n");
    memreg
        ->add_option("address", opts->address,
                     "Hexadecimal address of the first register (a multiple of 4)")
        ->required()
        ->transform(register_address());
    add_number(*memreg, "count", opts->count, "Number of registers (default 1)", 1, MAX_COUNT);
    add_json(*memreg, opts->json);
    memreg->callback([opts] {
        std::string lines;
        check_call(library_kept(lines,
                                [&] {
                                    return pta20_memreg_get(opts->address.c_str(), opts->count,
                                                            nullptr);
                                }),
                   "pta20_memreg_get");
        const std::vector<Register> registers = registers_in(lines);
        if (registers.size() != opts->count) {
            fail(Status::call_failed, "pta20_memreg_get printed " +
                                          std::to_string(registers.size()) + " of " +
                                          std::to_string(opts->count) + " registers");
        }
        print_registers(registers, opts->json);
    });
}

} // namespace karstctl
