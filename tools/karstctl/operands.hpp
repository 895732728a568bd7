// SPDX-License-Identifier: Apache-2.0
// The operands of karstctl's commands, checked whole while the command line is parsed (before
// anything reaches the secure world): numbers in decimal or 0x hexadecimal within their range,
// and names that stand for numbers (image types, slots, certificates).
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace karstctl {

// An unsigned number written out whole: decimal or 0x hexadecimal (with hex, hexadecimal with
// or without 0x). Nothing else: no sign, no space, no other base, no trailing text, no overflow.
std::optional<uint64_t> parse_unsigned(std::string_view text, bool hex = false);

// Adds a numeric operand (a positional, or an option such as "--option") that must lie within
// min to max; described in the help with its range.
CLI::Option *add_number(CLI::App &command, const std::string &name, uint32_t &target,
                        const std::string &description, uint32_t min, uint32_t max);

// A name standing for a number.
struct Named {
    const char *name;
    uint32_t value;
};
// The name of value in names, or its number.
std::string name_of(std::span<const Named> names, uint32_t value);
// The names, separated by ", ".
std::string names_list(std::span<const Named> names);
// Adds an operand given as one of names (any case) or as one of their numbers; what names the
// kind of operand in messages.
CLI::Option *add_named(CLI::App &command, const std::string &name, uint32_t &target,
                       const std::string &description, std::span<const Named> names,
                       const std::string &what);

} // namespace karstctl
