// env get|set: the U-Boot environment.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

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
    get->add_option("name", opts->name, "Variable name")->required();
    get->add_option("-o,--output", opts->output, "Write the value to this file instead");
    get->callback([opts] {
        auto value = std::make_unique<char[]>(VALUE_ROOM);
        check_call(pta20_ubootenv_get(opts->name.c_str(), value.get(), VALUE_ROOM),
                   "pta20_ubootenv_get");
        emit(opts->output, bounded_text(value.get(), VALUE_ROOM));
    });

    CLI::App *set = add_command(*env, "set", "Set a variable; without a value, clear it",
                                "  karstctl env set bootdelay 3\n"
                                "  karstctl env set bootdelay        (clears it)\n");
    set->add_option("name", opts->name, "Variable name")->required();
    set->add_option("value", opts->value, "New value (empty or absent: clear the variable)");
    set->callback([opts] {
        check_call(pta20_ubootenv_set(opts->name.c_str(), opts->value.c_str()),
                   "pta20_ubootenv_set");
    });
}

} // namespace karstctl
