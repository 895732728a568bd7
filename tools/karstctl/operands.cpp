// SPDX-License-Identifier: Apache-2.0
#include "operands.hpp"

#include <cctype>
#include <cstdio>

namespace karstctl {

namespace {

constexpr unsigned DECIMAL = 10;
constexpr unsigned HEXADECIMAL = 16;

int digit_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + static_cast<int>(DECIMAL) : -1;
}

std::string hex_text(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%02x", value);
    return text;
}

} // namespace

std::optional<uint64_t> parse_unsigned(std::string_view text, bool hex) {
    const bool prefixed = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (prefixed) {
        text.remove_prefix(2);
    }
    const unsigned base = hex || prefixed ? HEXADECIMAL : DECIMAL;
    if (text.empty()) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const char c : text) {
        const int digit = digit_value(c);
        if (digit < 0 || static_cast<unsigned>(digit) >= base ||
            value > (UINT64_MAX - static_cast<unsigned>(digit)) / base) {
            return std::nullopt;
        }
        value = value * base + static_cast<unsigned>(digit);
    }
    return value;
}

CLI::Option *add_number(CLI::App &command, const std::string &name, uint32_t &target,
                        const std::string &description, uint32_t min, uint32_t max) {
    const std::string range = hex_text(min) + " to " + hex_text(max);
    CLI::Validator number(
        [min, max, range](std::string &text) -> std::string {
            const std::optional<uint64_t> value = parse_unsigned(text);
            if (!value) {
                return "not a number (decimal or 0x hexadecimal): '" + text + "'";
            }
            if (*value < min || *value > max) {
                return "out of range " + range + ": " + text;
            }
            text = std::to_string(*value); // what CLI11 then converts
            return {};
        },
        "", "number");
    return command.add_option(name, target, description + " (" + range + ")")->transform(number);
}

std::string name_of(std::span<const Named> names, uint32_t value) {
    for (const Named &n : names) {
        if (n.value == value) {
            return n.name;
        }
    }
    return std::to_string(value);
}

std::string names_list(std::span<const Named> names) {
    std::string list;
    for (const Named &n : names) {
        list += (list.empty() ? "" : ", ") + std::string(n.name);
    }
    return list;
}

CLI::Option *add_named(CLI::App &command, const std::string &name, uint32_t &target,
                       const std::string &description, std::span<const Named> names,
                       const std::string &what) {
    CLI::Validator named(
        [names, what](std::string &text) -> std::string {
            const std::optional<uint64_t> number = parse_unsigned(text);
            for (const Named &n : names) {
                if ((number && *number == n.value) || CLI::detail::to_lower(text) == n.name) {
                    text = std::to_string(n.value);
                    return {};
                }
            }
            return "'" + text + "' is not " + what + "; one of: " + names_list(names);
        },
        "", what);
    return command.add_option(name, target, description)->type_name("NAME")->transform(named);
}

} // namespace karstctl
