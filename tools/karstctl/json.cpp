// SPDX-License-Identifier: Apache-2.0
#include "json.hpp"

#include <cstdio>

namespace karstctl {

namespace {

constexpr unsigned char FIRST_PRINTABLE = 0x20;
constexpr unsigned char LAST_ASCII = 0x7f;
constexpr unsigned char CONTINUATION_MASK = 0xc0;
constexpr unsigned char CONTINUATION = 0x80;

// Bytes of the UTF-8 sequence that lead starts (0 when lead cannot start one).
size_t sequence_length(unsigned char lead) {
    // The lead bytes of two-, three- and four-byte sequences begin at these values.
    constexpr unsigned char LEAD_2 = 0xc2;
    constexpr unsigned char LEAD_3 = 0xe0;
    constexpr unsigned char LEAD_4 = 0xf0;
    constexpr unsigned char LEAD_END = 0xf5;
    if (lead <= LAST_ASCII) {
        return 1;
    }
    if (lead < LEAD_2 || lead >= LEAD_END) {
        return 0;
    }
    return lead < LEAD_3 ? 2 : lead < LEAD_4 ? 3 : 4;
}

// Whether text is well-formed UTF-8 (lead bytes and continuation bytes in place).
bool valid_utf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const size_t n = sequence_length(static_cast<unsigned char>(text[i]));
        if (n == 0 || i + n > text.size()) {
            return false;
        }
        for (size_t k = 1; k < n; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & CONTINUATION_MASK) != CONTINUATION) {
                return false;
            }
        }
        i += n;
    }
    return true;
}

} // namespace

std::string json_string(std::string_view text) {
    const bool utf8 = valid_utf8(text);
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < FIRST_PRINTABLE || byte == LAST_ASCII || (byte > LAST_ASCII && !utf8)) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

JsonObject &JsonObject::member(std::string_view key, const std::string &json) {
    if (!members_.empty()) {
        members_ += ',';
    }
    members_ += json_string(key);
    members_ += ':';
    members_ += json;
    return *this;
}

JsonObject &JsonObject::text(std::string_view key, std::string_view text) {
    return member(key, json_string(text));
}

JsonObject &JsonObject::number(std::string_view key, uint64_t number) {
    return member(key, std::to_string(number));
}

JsonObject &JsonObject::flag(std::string_view key, bool yes) {
    return member(key, yes ? "true" : "false");
}

JsonObject &JsonObject::array(std::string_view key, const std::vector<JsonObject> &items) {
    std::string array = "[";
    for (const JsonObject &item : items) {
        if (array.size() > 1) {
            array += ',';
        }
        array += item.str();
    }
    return member(key, array + "]");
}

void print_json(const JsonObject &object) {
    std::printf("%s\n", object.str().c_str());
}

} // namespace karstctl
