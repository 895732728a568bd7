#include "certificate_der.hpp"

#include <climits>
#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace karst::emu::der {

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
