#include "name_value.hpp"

#include <cstring>

namespace karst {

bool split_name_value(char *text, NameValue &out) {
    out = NameValue{};
    if (text == nullptr || std::strchr(text, '=') == nullptr) {
        return false;
    }
    char *name = text;
    while (*name == '=') {
        ++name;
    }
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

} // namespace karst
