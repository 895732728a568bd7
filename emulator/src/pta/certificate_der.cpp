// SPDX-License-Identifier: Apache-2.0
#include "certificate_der.hpp"

#include "byte_order.hpp"

#include <climits>
#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace karst::emu::der {
namespace {

constexpr uint8_t TAG_SEQUENCE = 0x30;
// The first length byte: the length itself below LONG_FORM, else LONG_FORM plus the number of
// big-endian length bytes that follow.
constexpr uint8_t LONG_FORM = 0x80;

} // namespace

size_t sequence_size(std::span<const uint8_t> bytes, size_t max_length_bytes) {
    if (bytes.size() < 2 || bytes[0] != TAG_SEQUENCE) {
        return 0;
    }
    size_t head = 2;
    size_t length = bytes[1];
    if (bytes[1] >= LONG_FORM) {
        const size_t count = bytes[1] - LONG_FORM;
        if (count == 0 || count > max_length_bytes || bytes.size() < head + count) {
            return 0;
        }
        length = load_be(&bytes[head], count);
        head += count;
    }
    return length <= bytes.size() - head ? head + length : 0;
}

std::vector<Certificate> certificates(std::span<const uint8_t> bytes) {
    std::vector<Certificate> out;
    const unsigned char *p = bytes.data();
    const unsigned char *const end = bytes.data() + bytes.size();
    while (p < end) {
        const auto left = static_cast<size_t>(end - p);
        const long chunk =
            left > static_cast<size_t>(LONG_MAX) ? LONG_MAX : static_cast<long>(left);
        Certificate cert(d2i_X509(nullptr, &p, chunk), &X509_free);
        if (!cert) {
            ERR_clear_error();
            return {};
        }
        out.push_back(std::move(cert));
    }
    return out;
}

bool is_one_certificate(std::span<const uint8_t> bytes) {
    return certificates(bytes).size() == 1;
}

bool issued_by(X509 *cert, X509 *issuer) {
    if (X509_check_issued(issuer, cert) != X509_V_OK) {
        return false;
    }
    EVP_PKEY *key = X509_get0_pubkey(issuer);
    const bool verified = key != nullptr && X509_verify(cert, key) == 1;
    ERR_clear_error();
    return verified;
}

} // namespace karst::emu::der
