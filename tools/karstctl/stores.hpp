// SPDX-License-Identifier: Apache-2.0
// The operands of the secure world's stores of named values (the U-Boot environment and the
// inventory): names that fit the library's name buffer, values that a get can give back.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace karstctl {

// The library's name buffer: a name and its terminating zero.
constexpr size_t STORE_NAME_ROOM = 1024;

// A required name of 1 to STORE_NAME_ROOM - 1 bytes.
inline CLI::Option *add_store_name(CLI::App &command, std::string &name,
                                   const std::string &description) {
    CLI::Validator fits(
        [](const std::string &text) -> std::string {
            if (text.empty() || text.size() >= STORE_NAME_ROOM) {
                return "a name of 1 to " + std::to_string(STORE_NAME_ROOM - 1) + " bytes is needed";
            }
            return {};
        },
        "", "name");
    return command.add_option("name", name, description)->required()->check(fits);
}

// A value that, with its terminating zero, fits the room bytes a get reads it into.
inline CLI::Option *add_store_value(CLI::App &command, std::string &value,
                                    const std::string &description, uint32_t room, bool required) {
    CLI::Validator fits(
        [room](const std::string &text) -> std::string {
            if (text.size() >= room) {
                return "a value of " + std::to_string(text.size()) + " bytes could not be read " +
                       "back: at most " + std::to_string(room - 1) + " bytes";
            }
            return {};
        },
        "", "value");
    CLI::Option *option = command.add_option("value", value, description)->check(fits);
    return required ? option->required() : option;
}

} // namespace karstctl
