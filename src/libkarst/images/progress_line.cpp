// SPDX-License-Identifier: Apache-2.0
#include "progress_line.hpp"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace karst::images {
namespace {

constexpr size_t FIELD_MAX = 15;

// Copies the field from start to end (positions in line) into a 16-byte field; false when it
// is longer than 15 characters or the markers overlap (end before start).
bool cut_field(const char *line, size_t start, size_t end, char (&field)[FIELD_MAX + 1]) {
    const size_t length = end - start; // unsigned: overlapping markers give a huge length
    if (end < start || length > FIELD_MAX) {
        return false;
    }
    std::memcpy(field, line + start, length);
    field[length] = '\0';
    return true;
}

// A marker searched from position from; the position where it starts, or false.
bool find(const char *line, size_t from, const char *marker, size_t &at) {
    const char *p = std::strstr(line + from, marker);
    if (p == nullptr) {
        return false;
    }
    at = static_cast<size_t>(p - line);
    return true;
}

} // namespace

int parse_progress_line(const char *line) {
    size_t written = 0, total = 0, comma = 0, percent = 0;
    char written_field[FIELD_MAX + 1], total_field[FIELD_MAX + 1], percent_field[FIELD_MAX + 1];
    // Field bounds: "written:" + 9 up to "total:" - 2; "total:" + 7 up to ","; "," + 2 up to
    // "%". Positions are only compared, never used to read, until a field proves to lie inside
    // the line.
    if (!find(line, 0, "written:", written) || !find(line, written, "total:", total) ||
        !cut_field(line, written + 9, total - 2, written_field) || !find(line, total, ",", comma) ||
        !cut_field(line, total + 7, comma, total_field) || !find(line, comma, "%", percent) ||
        !cut_field(line, comma + 2, percent, percent_field)) {
        return -1;
    }
    // As atoi reads it, without its undefined behaviour on overflow.
    const long value = std::strtol(percent_field, nullptr, 10);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

} // namespace karst::images
