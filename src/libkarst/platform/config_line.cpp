// SPDX-License-Identifier: Apache-2.0
#include "config_line.hpp"

#include <algorithm>
#include <cstring>

namespace karst::config {
namespace {

// The position of the first "=" or apostrophe among the first window bytes of line, or window.
size_t key_end(const char *line, size_t window) {
    const auto *equals = static_cast<const char *>(std::memchr(line, '=', window));
    const size_t k = equals != nullptr ? static_cast<size_t>(equals - line) : window;
    const auto *apostrophe = static_cast<const char *>(std::memchr(line, '\'', k));
    return apostrophe != nullptr ? static_cast<size_t>(apostrophe - line) : k;
}

} // namespace

LineFields locate_fields(const char *line, size_t length) {
    LineFields fields;
    const size_t end = strnlen(line, length);
    // A key that runs past KEY_MAX characters does not fit the field: no entry.
    const size_t k = key_end(line, std::min(end, KEY_MAX + 1));
    if (k == 0 || k > KEY_MAX) {
        return fields;
    }
    fields.count = 1;
    fields.key_length = k;
    if (k == end || line[k] != '=') {
        return fields;
    }
    // The value runs to the line end, cut to VALUE_MAX characters.
    const char *value = line + k + 1;
    const size_t window = std::min(end - (k + 1), VALUE_MAX);
    const auto *line_end = static_cast<const char *>(std::memchr(value, '\n', window));
    fields.value_at = k + 1;
    fields.value_length = line_end != nullptr ? static_cast<size_t>(line_end - value) : window;
    fields.count = fields.value_length == 0 ? 1 : 2;
    return fields;
}

int scan_line(const char *line, size_t length, config_entry &entry) {
    const LineFields fields = locate_fields(line, length);
    std::memcpy(entry.key, line, fields.key_length);
    entry.key[fields.key_length] = '\0';
    std::memcpy(entry.value, line + fields.value_at, fields.value_length);
    entry.value[fields.value_length] = '\0';
    return fields.count;
}

bool key_fits(const char *key, size_t length) {
    return length <= KEY_MAX && std::strpbrk(key, "='\n") == nullptr;
}

} // namespace karst::config
