#include "name_value.hpp"

#include <cstring>

namespace karst {
namespace {

// The split found without writing: the name (null when there is none) and the "=" that ends it
// (null when the name runs to the end of the text).
struct Split {
    char *name = nullptr;
    char *end = nullptr;
};

Split locate(char *text) {
    Split split;
    char *name = text;
    while (*name == '=') {
        ++name;
    }
    if (*name != '\0') {
        split.name = name;
        split.end = std::strchr(name, '=');
    }
    return split;
}

// Ends the name at its "=" and hands out both parts.
void apply(const Split &split, NameValue &out) {
    out.name = split.name;
    if (split.end != nullptr) {
        *split.end = '\0';
        out.value = split.end[1] != '\0' ? split.end + 1 : nullptr;
    }
}

} // namespace

bool split_name_value(char *text, NameValue &out) {
    out = NameValue{};
    if (text == nullptr || std::strchr(text, '=') == nullptr) {
        return false;
    }
    apply(locate(text), out);
    return true;
}

bool split_name_and_value(char *text, NameValue &out) {
    out = NameValue{};
    if (text == nullptr) {
        return false;
    }
    const Split split = locate(text);
    if (split.end == nullptr || split.end[1] == '\0') {
        return false;
    }
    apply(split, out);
    return true;
}

} // namespace karst
