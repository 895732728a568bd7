// SPDX-License-Identifier: Apache-2.0
#include "cert_summary.hpp"

#include "der_element.hpp"

#include <climits>
#include <optional>

namespace karstctl {

namespace {

constexpr uint8_t SEQUENCE = 0x30;
constexpr uint8_t SET = 0x31;
constexpr uint8_t OID = 0x06;
constexpr uint8_t VERSION = 0xa0; // [0] EXPLICIT, before the serial number
constexpr unsigned OID_BITS = 7;
constexpr uint8_t OID_MORE = 0x80;
constexpr uint8_t OID_VALUE = 0x7f;
constexpr unsigned OID_FIRST_ARC = 40;

using Bytes = std::span<const uint8_t>;

// The attribute types of the 2.5.4 arc with a short name, by their last arc.
struct ShortName {
    uint8_t last;
    const char *name;
};
constexpr ShortName SHORT_NAMES[] = {{3, "CN"}, {5, "serialNumber"}, {6, "C"},  {7, "L"},
                                     {8, "ST"}, {10, "O"},           {11, "OU"}};

using karst::der::Element;
using karst::der::next;

// An attribute type's name: the short name of the common ones, else the dotted identifier.
std::string attribute_name(Bytes oid) {
    constexpr uint8_t NAME_ARC[] = {0x55, 0x04}; // 2.5.4
    if (oid.size() == 3 && oid[0] == NAME_ARC[0] && oid[1] == NAME_ARC[1]) {
        for (const auto &n : SHORT_NAMES) {
            if (n.last == oid[2]) {
                return n.name;
            }
        }
    }
    std::string dotted;
    uint64_t arc = 0;
    for (const uint8_t byte : oid) {
        arc = arc << OID_BITS | (byte & OID_VALUE);
        if ((byte & OID_MORE) == 0) {
            if (dotted.empty()) {
                dotted += std::to_string(arc / OID_FIRST_ARC);
                arc %= OID_FIRST_ARC;
            }
            dotted += '.';
            dotted += std::to_string(arc);
            arc = 0;
        }
    }
    return dotted;
}

// The Name's attributes (SET of SEQUENCE {type, value}) as "type=value" joined by ",".
std::string name_text(Bytes name) {
    std::string text;
    while (const std::optional<Element> set = next(name)) {
        Bytes attributes = set->content;
        while (const std::optional<Element> attribute = next(attributes)) {
            Bytes parts = attribute->content;
            const std::optional<Element> type = next(parts);
            const std::optional<Element> value = next(parts);
            if (set->tag != SET || attribute->tag != SEQUENCE || !type || type->tag != OID ||
                !value) {
                return {};
            }
            if (!text.empty()) {
                text += ',';
            }
            text += attribute_name(type->content);
            text += '=';
            text.append(value->content.begin(), value->content.end());
        }
    }
    return text;
}

} // namespace

std::string der_subject(std::span<const uint8_t> der) {
    const std::optional<Element> certificate = next(der);
    Bytes body = certificate ? certificate->content : Bytes{};
    const std::optional<Element> tbs = next(body);
    if (!certificate || certificate->tag != SEQUENCE || !tbs || tbs->tag != SEQUENCE) {
        return {};
    }
    Bytes fields = tbs->content;
    std::optional<Element> field = next(fields);
    if (field && field->tag == VERSION) {
        field = next(fields);
    }
    // The serial number, the signature algorithm, the issuer and the validity: then the subject.
    constexpr int FIELDS_BEFORE_SUBJECT = 4;
    for (int i = 0; i < FIELDS_BEFORE_SUBJECT && field; ++i) {
        field = next(fields);
    }
    return field && field->tag == SEQUENCE ? name_text(field->content) : std::string();
}

} // namespace karstctl
