// SPDX-License-Identifier: Apache-2.0
#include "name_value.hpp"

#include <cstring>

namespace karst {

bool split_name_value(char *text, NameValue &out) {
    out = NameValue{};
    if (text == nullptr || std::strchr(text, '=') == nullptr) {
        return false;
    }
    char *name = text + std::strspn(text, "=");
    if (*name == '\0') {
        return true;
    }
    out.name = name;
    if (char *end = std::strchr(name, '='); end != nullptr) {
        *end = '\0';
        out.value = end[1] != '\0' ? end + 1 : nullptr;
    }
    return true;
}

bool split_name_and_value(char *text, NameValue &out) {
    out = NameValue{};
    // Looked at before the split, so that a refused text stays unchanged.
    const char *name = text != nullptr ? text + std::strspn(text, "=") : nullptr;
    const char *end = name != nullptr ? std::strchr(name, '=') : nullptr;
    return end != nullptr && end[1] != '\0' && split_name_value(text, out);
}

} // namespace karst
