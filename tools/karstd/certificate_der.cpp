// SPDX-License-Identifier: Apache-2.0
#include "certificate_der.hpp"

#include "der_element.hpp"

#include <algorithm>
#include <array>

namespace karstd {
namespace {

constexpr uint8_t SEQUENCE = 0x30;
constexpr uint8_t OBJECT_ID = 0x06;
constexpr uint8_t EXPLICIT_VERSION = 0xA0; // [0], the certificate's version
// Fields of TBSCertificate between the serial number and the public key: the signature
// algorithm, issuer, validity and subject.
constexpr int FIELDS_BEFORE_KEY = 4;

using karst::der::Element;
using karst::der::next;

// The content of the next element when it has the tag.
std::optional<std::span<const uint8_t>> enter(std::span<const uint8_t> &in, uint8_t tag) {
    const std::optional<Element> e = next(in);
    if (!e || e->tag != tag) {
        return std::nullopt;
    }
    return e->content;
}

using Oid = std::span<const uint8_t>;
constexpr std::array<uint8_t, 7> EC_KEY = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
constexpr std::array<uint8_t, 8> P256 = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr std::array<uint8_t, 5> P384 = {0x2B, 0x81, 0x04, 0x00, 0x22};
constexpr std::array<uint8_t, 9> RSA_KEY = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};

struct KnownKey {
    Oid algorithm;
    Oid curve; // empty: any parameters
    KeyKind kind;
};

const KnownKey KNOWN_KEYS[] = {
    {EC_KEY, P256, {"EC", "prime256v1", "secp256r1", 256, "TPM_ALG_ECDSA_ECC_NIST_P256"}},
    {EC_KEY, P384, {"EC", "secp384r1", "P-384", 384, "TPM_ALG_ECDSA_ECC_NIST_P384"}},
    {RSA_KEY, {}, {"RSA", "", "", 0, "TPM_ALG_RSASSA"}},
};

bool same(Oid a, Oid b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

} // namespace

bool is_der_sequence(std::span<const uint8_t> bytes) {
    const std::optional<Element> e = next(bytes);
    return e && e->tag == SEQUENCE && bytes.empty();
}

std::optional<std::span<const uint8_t>> public_key_info(std::span<const uint8_t> certificate) {
    std::optional<std::span<const uint8_t>> outer = enter(certificate, SEQUENCE);
    std::optional<std::span<const uint8_t>> fields = outer ? enter(*outer, SEQUENCE) : outer;
    if (!fields) {
        return std::nullopt;
    }
    std::optional<Element> field = next(*fields);
    if (field && field->tag == EXPLICIT_VERSION) {
        field = next(*fields); // the serial number
    }
    for (int i = 0; field && i < FIELDS_BEFORE_KEY; ++i) {
        field = next(*fields);
    }
    field = field ? next(*fields) : field;
    if (!field || field->tag != SEQUENCE) {
        return std::nullopt;
    }
    return field->whole;
}

const KeyKind *key_kind(std::span<const uint8_t> key_info) {
    std::optional<std::span<const uint8_t>> info = enter(key_info, SEQUENCE);
    std::optional<std::span<const uint8_t>> algorithm = info ? enter(*info, SEQUENCE) : info;
    std::optional<std::span<const uint8_t>> oid =
        algorithm ? enter(*algorithm, OBJECT_ID) : algorithm;
    if (!oid) {
        return nullptr;
    }
    const std::optional<std::span<const uint8_t>> curve = enter(*algorithm, OBJECT_ID);
    for (const KnownKey &known : KNOWN_KEYS) {
        if (same(*oid, known.algorithm) &&
            (known.curve.empty() || (curve && same(*curve, known.curve)))) {
            return &known.kind;
        }
    }
    return nullptr;
}

} // namespace karstd
