// SPDX-License-Identifier: Apache-2.0
// DER X.509 certificates as the application receives them: one certificate, or several back to
// back, with no other bytes before, between or after them.
#pragma once

#include <cstdint>
#include <memory>
#include <openssl/x509.h>
#include <span>
#include <vector>

namespace karst::emu::der {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

// The size of the DER SEQUENCE at the start of bytes, its header included, when its length is
// given in at most max_length_bytes bytes and it lies inside bytes; 0 otherwise.
size_t sequence_size(std::span<const uint8_t> bytes, size_t max_length_bytes);

// The certificates of bytes, in order; empty when bytes are not DER certificates back to back.
std::vector<Certificate> certificates(std::span<const uint8_t> bytes);

// Whether bytes are exactly one DER certificate.
bool is_one_certificate(std::span<const uint8_t> bytes);

// Whether issuer's name and key issued cert: the names chain and cert's signature holds.
bool issued_by(X509 *cert, X509 *issuer);

} // namespace karst::emu::der
