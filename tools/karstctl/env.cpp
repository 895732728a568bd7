// SPDX-License-Identifier: Apache-2.0
// env get|set: the U-Boot environment.
#include "common.hpp"
#include "families.hpp"
#include "stores.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

// What env get reads a value into (the library's own room for a value).
constexpr uint32_t VALUE_ROOM = 32768;

struct EnvOptions {
    std::string name;
    std::string value;
    std::string output;
};

} // namespace

void add_env(CLI::App &app) {
    auto opts = std::make_shared<EnvOptions>();
    CLI::App *env = add_group(app, "env", "Read and set U-Boot environment variables",
                              "  karstctl env get bootcmd\n"
                              "  karstctl env set bootdelay 3\n");

    CLI::App *get = add_command(*env, "get", "Print a variable's value (or write it to a file)",
                                "  karstctl env get bootcmd\n"
                                "  karstctl env get bootcmd -o bootcmd.txt\n");
    add_store_name(*get, opts->name, "Variable name");
    add_output(*get, opts->output, "Write the value (without a line end) to this file instead");
    get->callback([opts] {
        auto value = std::make_unique<char[]>(VALUE_ROOM);
        run_call("pta20_ubootenv_get",
                 [&] { return pta20_ubootenv_get(opts->name.c_str(), value.get(), VALUE_ROOM); });
        emit(opts->output, bounded_text(value.get(), VALUE_ROOM));
    });

    CLI::App *set = add_command(*env, "set", "Set a variable; without a value, clear it",
                                "  karstctl env set bootdelay 3\n"
                                "  karstctl env set bootdelay        (clears it)\n");
    add_store_name(*set, opts->name, "Variable name");
    add_store_value(*set, opts->value, "New value (empty or absent: clear the variable)",
                    VALUE_ROOM, false);
    set->callback([opts] {
        run_call("pta20_ubootenv_set",
                 [&] { return pta20_ubootenv_set(opts->name.c_str(), opts->value.c_str()); });
    });
}

} // namespace karstctl
