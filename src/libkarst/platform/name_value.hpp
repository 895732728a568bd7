// SPDX-License-Identifier: Apache-2.0
// The name=value texts of the dispatcher entries that set a named value.
#pragma once

namespace karst {

struct NameValue {
    char *name = nullptr;  // null when the text holds only "=" characters
    char *value = nullptr; // null when nothing follows the "=" that ends the name
};

// Splits text in place: leading "=" characters are skipped, the name runs to the next "=",
// which is overwritten with a zero, and the value is the whole rest of the text. False, with
// the text unchanged, when it is null or holds no "=".
bool split_name_value(char *text, NameValue &out);

// The same split for a text that must hold both a name and a value (a CPLD register and its
// value): false, with the text unchanged, when either is missing or empty.
bool split_name_and_value(char *text, NameValue &out);

} // namespace karst
