// SPDX-License-Identifier: Apache-2.0
// The line format of the key=value files the library reads: the inventory file and the
// firmware inventory files. One entry per line: a key of 1 to 63 characters ended by "=" (or by
// an apostrophe, which leaves the entry without a value), then a value of up to 511 characters
// running to the line end.
#pragma once

#include <cstddef>

namespace karst::config {

constexpr size_t KEY_FIELD = 64;
constexpr size_t VALUE_FIELD = 512;
constexpr size_t KEY_MAX = KEY_FIELD - 1;
constexpr size_t VALUE_MAX = VALUE_FIELD - 1;
// The part of a line that decides how it scans: a key that fits, "=", and the longest value.
// Anything further along a line never changes the result.
constexpr size_t LINE_HEAD = 1024;

// One scanned line: its key and its value, both always terminated.
struct config_entry {
    char key[KEY_FIELD];
    char value[VALUE_FIELD];
};

// Where scan_line finds a line's fields, without copying them: the key is the line's first
// key_length bytes, the value the value_length bytes at value_at (0 bytes unless count is 2).
struct LineFields {
    int count = 0;
    size_t key_length = 0;
    size_t value_at = 0;
    size_t value_length = 0;
};

// Scans a line as the pattern "%[^'=']=%511[^\n]" would, with the key bounded to its field:
//   0  no entry: the line starts with "=" or an apostrophe, is empty, or its key runs past
//      63 characters;
//   1  a key without a value: "=" is followed directly by the line end, the key was ended by an
//      apostrophe, or the line holds no "=" (the key then runs to the line's end, line end
//      character included);
//   2  a key and a value of 1 to 511 characters (a longer value is cut).
// As for a text, the line ends at its first zero byte. Both fields are rewritten on every call:
// empty unless the count gives them a content.
int scan_line(const char *line, size_t length, config_entry &entry);
// The same scan, telling where the fields lie.
LineFields locate_fields(const char *line, size_t length);

inline bool is_entry(int count) {
    return count == 1 || count == 2;
}

// Whether a key can be held by a line: 1 to 63 characters, none of them "=", an apostrophe or a
// line end. The empty key is accepted here; callers treat it as "nothing to do".
bool key_fits(const char *key, size_t length);

} // namespace karst::config
