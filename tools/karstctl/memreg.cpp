// memreg: secure registers.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

struct MemregOptions {
    std::string address;
    uint32_t count = 1;
};

} // namespace

void add_memreg(CLI::App &app) {
    auto opts = std::make_shared<MemregOptions>();
    CLI::App *memreg =
        add_command(app, "memreg", "Read and print consecutive 32-bit secure registers",
                    "  karstctl memreg 1e6e2070\n"
                    "  karstctl memreg 0x1e6e2070 4\n");
    memreg->add_option("address", opts->address, "Hexadecimal address of the first register")
        ->required();
    memreg->add_option("count", opts->count, "Number of registers, 1 to 64 (default 1)")
        ->check(CLI::Range(1, 64));
    memreg->callback([opts] {
        check_call(pta20_memreg_get(opts->address.c_str(), opts->count, nullptr),
                   "pta20_memreg_get");
    });
}

} // namespace karstctl
