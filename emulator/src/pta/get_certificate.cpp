// SPDX-License-Identifier: Apache-2.0
// Certificate retrieval (34). Slot 4: the factory certificate chain, DER certificates back to
// back, root first. Slot 5: one whole object, the certificate most recently stored by a
// certificate replacement, or else the device certificate in PEM.
#include "application.hpp"
#include "cert_store.hpp"
#include "device_identity.hpp"

#include <memory>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace karst::emu {
namespace {

constexpr uint32_t CHAIN_SLOT = 4;
constexpr uint32_t OBJECT_SLOT = 5;

std::string pem_of(const std::vector<uint8_t> &der) {
    const unsigned char *p = der.data();
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        d2i_X509(nullptr, &p, static_cast<long>(der.size())), &X509_free);
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
    if (!cert || !bio || PEM_write_bio_X509(bio.get(), cert.get()) != 1) {
        return {};
    }
    char *data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(n));
}

} // namespace

TEEC_Result get_certificate(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_out)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t slot = params[0].value.a;
    if (slot == CHAIN_SLOT) {
        const std::vector<uint8_t> chain = identity::certificate_chain();
        if (chain.empty()) {
            return TEEC_ERROR_GENERIC;
        }
        return params[1].put(chain.data(), chain.size());
    }
    if (slot == OBJECT_SLOT) {
        if (const auto stored = latest_certificate()) {
            return params[1].put(stored->data(), stored->size());
        }
        const auto certs = identity::chain_certificates();
        const std::string pem = certs.empty() ? std::string() : pem_of(certs.back());
        if (pem.empty()) {
            return TEEC_ERROR_GENERIC;
        }
        return params[1].put(pem);
    }
    return TEEC_ERROR_ITEM_NOT_FOUND;
}

} // namespace karst::emu
