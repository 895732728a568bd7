#include "config_line.hpp"

#include <cstring>

namespace karst::config {

int scan_line(const char *line, size_t length, config_entry &entry) {
    entry.key[0] = '\0';
    entry.value[0] = '\0';
    const size_t end = strnlen(line, length);

    size_t k = 0;
    while (k < end && line[k] != '=' && line[k] != '\'') {
        if (++k > KEY_MAX) {
            return 0; // no key that fits the field
        }
    }
    if (k == 0) {
        return 0;
    }
    std::memcpy(entry.key, line, k);
    entry.key[k] = '\0';
    if (k == end || line[k] != '=') {
        return 1;
    }

    const size_t v = k + 1;
    size_t n = 0;
    while (v + n < end && line[v + n] != '\n' && n < VALUE_MAX) {
        ++n;
    }
    if (n == 0) {
        return 1;
    }
    std::memcpy(entry.value, line + v, n);
    entry.value[n] = '\0';
    return 2;
}

bool key_fits(const char *key, size_t length) {
    return length <= KEY_MAX && std::strpbrk(key, "='\n") == nullptr;
}

} // namespace karst::config
