// SPDX-License-Identifier: Apache-2.0
// What karstd reads of a DER certificate itself: its public key (SubjectPublicKeyInfo, for the
// attestation's PEM public key) and that key's kind (for the signing algorithm's name and the
// key parameters a CSR may ask for). Everything else is left to the clients.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace karstd {

struct KeyKind {
    const char *algorithm; // as Certs.CSR.Create's KeyPairAlgorithm: "EC", "RSA"
    const char *curve;     // KeyCurveId (OpenSSL's name), or "" for RSA
    const char *curve_alias;
    int64_t bits;        // KeyBitLength, 0 where it is not fixed
    const char *signing; // SigningAlgorithm of the signed measurements
};

// Whether bytes are exactly one DER SEQUENCE.
bool is_der_sequence(std::span<const uint8_t> bytes);

// The SubjectPublicKeyInfo (whole, tag and length included) of a DER certificate.
std::optional<std::span<const uint8_t>> public_key_info(std::span<const uint8_t> certificate);

// The kind of a SubjectPublicKeyInfo's key; null for a kind karstd does not know.
const KeyKind *key_kind(std::span<const uint8_t> key_info);

} // namespace karstd
