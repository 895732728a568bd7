// SPDX-License-Identifier: Apache-2.0
#include "device_identity.hpp"

#include "../state_dir.hpp"
#include "certificate_der.hpp"

#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sstream>

namespace karst::emu::identity {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Cert = std::unique_ptr<X509, decltype(&X509_free)>;
using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

// Certificates the emulator issues are valid for twenty years from their making.
constexpr long CERTIFICATE_LIFETIME_SECONDS = 20L * 365 * 24 * 3600;
// The stored chain: certificates back to back, each a DER SEQUENCE whose length takes at most
// three bytes; a rest shorter than a SEQUENCE's header and two bytes is not looked at.
constexpr size_t CERTIFICATE_LENGTH_BYTES = 3;
constexpr size_t MIN_CERTIFICATE_SIZE = 4;

std::string state_file(const char *name) {
    const std::string dir = state_dir();
    return dir.empty() ? std::string() : dir + "/" + name;
}

std::string read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool write_all(const std::string &path, const std::string &data) {
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << data;
        if (!out.flush()) {
            return false;
        }
    }
    return std::rename(tmp.c_str(), path.c_str()) == 0;
}

std::string key_to_pem(EVP_PKEY *key) {
    Bio bio(BIO_new(BIO_s_mem()), &BIO_free);
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        return {};
    }
    char *data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(n));
}

Key key_from_pem(const std::string &pem) {
    Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    return Key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr,
               &EVP_PKEY_free);
}

// A key kept in the state directory under name, made with make() the first time.
template <typename Make> Key persistent_key(const char *name, Make make) {
    const std::string path = state_file(name);
    if (path.empty()) {
        return Key(nullptr, &EVP_PKEY_free);
    }
    if (Key key = key_from_pem(read_all(path))) {
        return key;
    }
    Key key(make(), &EVP_PKEY_free);
    if (key) {
        write_all(path, key_to_pem(key.get()));
    }
    return key;
}

Key device_key() {
    return persistent_key("device_key.pem",
                          [] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"); });
}

bool add_name(X509_NAME *name, const char *field, const std::string &value) {
    return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char *>(value.c_str()), -1,
                                      -1, 0) == 1;
}

// Edwards keys sign without a separate digest.
const EVP_MD *digest_for(EVP_PKEY *signer) {
    return EVP_PKEY_get_id(signer) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
}

Cert issue(const std::string &subject_cn, EVP_PKEY *subject_key, const std::string &issuer_cn,
           EVP_PKEY *issuer_key, long serial, bool ca) {
    Cert cert(X509_new(), &X509_free);
    if (!cert) {
        return cert;
    }
    X509 *x = cert.get();
    X509_set_version(x, ca ? 2 : 0);
    ASN1_INTEGER_set(X509_get_serialNumber(x), serial);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), CERTIFICATE_LIFETIME_SECONDS);
    add_name(X509_get_subject_name(x), "CN", subject_cn);
    add_name(X509_get_issuer_name(x), "CN", issuer_cn);
    X509_set_pubkey(x, subject_key);
    if (X509_sign(x, issuer_key, digest_for(issuer_key)) <= 0) {
        cert.reset();
    }
    return cert;
}

// The DER form of an object as its OpenSSL i2d function gives it; empty when it cannot.
template <typename Object, typename Encode>
std::vector<uint8_t> der_by(Object *object, Encode encode) {
    unsigned char *der = nullptr;
    const int n = encode(object, &der);
    if (n <= 0) {
        return {};
    }
    std::vector<uint8_t> out(der, der + n);
    OPENSSL_free(der);
    return out;
}

std::vector<uint8_t> der_of(X509 *cert) {
    return der_by(cert, i2d_X509);
}

std::vector<std::vector<uint8_t>> make_chain() {
    Key root = persistent_key("root_ca_key.pem", [] {
        return EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
    });
    Key inter = persistent_key("intermediate_ca_key.pem",
                               [] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"); });
    Key dca = persistent_key("device_ca_key.pem",
                             [] { return EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"); });
    Key dev = device_key();
    if (!root || !inter || !dca || !dev) {
        return {};
    }
    Cert c0 = issue("karst Root CA", root.get(), "karst Root CA", root.get(), 1, true);
    Cert c1 = issue("karst Intermediate CA", inter.get(), "karst Root CA", root.get(), 2, true);
    Cert c2 = issue("Dev CA", dca.get(), "karst Intermediate CA", inter.get(), 3, false);
    Cert c3 = issue("karst-device", dev.get(), "Dev CA", dca.get(), 4, false);
    if (!c0 || !c1 || !c2 || !c3) {
        return {};
    }
    return {der_of(c0.get()), der_of(c1.get()), der_of(c2.get()), der_of(c3.get())};
}

} // namespace

std::string device_public_key_pem() {
    Key key = device_key();
    Bio bio(BIO_new(BIO_s_mem()), &BIO_free);
    if (!key || !bio || PEM_write_bio_PUBKEY(bio.get(), key.get()) != 1) {
        return {};
    }
    char *data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<size_t>(n));
}

std::vector<uint8_t> sign(std::span<const uint8_t> data) {
    Key key = device_key();
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    size_t len = 0;
    if (!key || !ctx ||
        EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &len, data.data(), data.size()) != 1) {
        return {};
    }
    std::vector<uint8_t> sig(len);
    if (EVP_DigestSign(ctx.get(), sig.data(), &len, data.data(), data.size()) != 1) {
        return {};
    }
    sig.resize(len);
    return sig;
}

bool verify(std::span<const uint8_t> data, std::span<const uint8_t> signature) {
    Key key = device_key();
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    return key && ctx &&
           EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
           EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), data.data(),
                            data.size()) == 1;
}

std::vector<uint8_t> make_csr(const std::string &subject) {
    Key key = device_key();
    std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> req(X509_REQ_new(), &X509_REQ_free);
    if (!key || !req) {
        return {};
    }
    X509_NAME *name = X509_REQ_get_subject_name(req.get());
    bool named = false;
    size_t pos = 0;
    while (pos < subject.size()) {
        size_t end = subject.find(',', pos);
        if (end == std::string::npos) {
            end = subject.size();
        }
        const std::string part = subject.substr(pos, end - pos);
        const size_t eq = part.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == part.size() ||
            !add_name(name, part.substr(0, eq).c_str(), part.substr(eq + 1))) {
            named = false;
            X509_NAME *fresh = X509_NAME_new();
            X509_REQ_set_subject_name(req.get(), fresh);
            X509_NAME_free(fresh);
            name = X509_REQ_get_subject_name(req.get());
            break;
        }
        named = true;
        pos = end + 1;
    }
    if (!named) {
        add_name(name, "CN", "karst-device");
    }
    X509_REQ_set_version(req.get(), 0);
    X509_REQ_set_pubkey(req.get(), key.get());
    if (X509_REQ_sign(req.get(), key.get(), EVP_sha256()) <= 0) {
        return {};
    }
    return der_by(req.get(), i2d_X509_REQ);
}

std::vector<std::vector<uint8_t>> chain_certificates() {
    // Made once per state directory and kept, so the chain is the same for every process.
    const std::string path = state_file("factory_chain.der");
    if (path.empty()) {
        return {};
    }
    std::string stored = read_all(path);
    std::vector<std::vector<uint8_t>> certs;
    if (stored.empty()) {
        certs = make_chain();
        std::string joined;
        for (const auto &c : certs) {
            joined.append(c.begin(), c.end());
        }
        write_all(path, joined);
        return certs;
    }
    // Split the stored chain at each certificate's outer length.
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(stored.data()),
                                         stored.size());
    size_t off = 0;
    while (off + MIN_CERTIFICATE_SIZE <= bytes.size()) {
        const size_t size = der::sequence_size(bytes.subspan(off), CERTIFICATE_LENGTH_BYTES);
        if (size == 0) {
            break;
        }
        certs.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(off),
                           bytes.begin() + static_cast<ptrdiff_t>(off + size));
        off += size;
    }
    return certs;
}

std::vector<uint8_t> certificate_chain() {
    std::vector<uint8_t> chain;
    for (const auto &c : chain_certificates()) {
        chain.insert(chain.end(), c.begin(), c.end());
    }
    return chain;
}

} // namespace karst::emu::identity
