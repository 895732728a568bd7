#include "ra_data.hpp"

#include "byte_order.hpp"
#include "device_identity.hpp"

#include <cstdio>
#include <cstring>
#include <openssl/sha.h>
#include <string>

namespace karst::emu::ra {
namespace {

constexpr char MAGIC[] = "KARST-RA-DATA v1\n";

std::string hex(std::span<const uint8_t> bytes) {
    std::string out;
    char two[3];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02x", b);
        out += two;
    }
    return out;
}

// The length of a DER SEQUENCE at the start of bytes, header included; 0 if there is none.
size_t der_length(std::span<const uint8_t> bytes) {
    if (bytes.size() < 2 || bytes[0] != 0x30) {
        return 0;
    }
    if (bytes[1] < 0x80) {
        return 2u + bytes[1];
    }
    const size_t k = bytes[1] & 0x7F;
    if (k == 0 || k > 2 || bytes.size() < 2 + k) {
        return 0;
    }
    const size_t len = load_be(&bytes[2], k);
    return 2 + k + len <= bytes.size() ? 2 + k + len : 0;
}

} // namespace

std::vector<uint8_t> issue(std::span<const uint8_t> certificate, std::span<const uint8_t> tid) {
    std::array<uint8_t, 8> tid_bytes{};
    std::memcpy(tid_bytes.data(), tid.data(), std::min(tid.size(), tid_bytes.size()));
    uint8_t digest[SHA256_DIGEST_LENGTH];
    SHA256(certificate.data(), certificate.size(), digest);
    const std::string text =
        std::string(MAGIC) + "tid=" + hex(tid_bytes) + "\ncert-sha256=" + hex(digest) + "\n";

    std::vector<uint8_t> result(RESULT_SIZE, 0);
    std::memcpy(result.data(), text.data(), text.size());
    const auto sig = identity::sign(std::span(result.data(), DATA_SIZE));
    if (sig.empty() || sig.size() > SIGNATURE_SIZE) {
        return {};
    }
    std::memcpy(result.data() + DATA_SIZE, sig.data(), sig.size());
    return result;
}

TEEC_Result check(std::span<const uint8_t> data, std::span<const uint8_t> signature) {
    const size_t magic_len = sizeof MAGIC - 1;
    if (data.size() < magic_len || std::memcmp(data.data(), MAGIC, magic_len) != 0) {
        return RA_REJECTED;
    }
    const size_t sig_len = der_length(signature);
    if (sig_len == 0 || !identity::verify(data, signature.first(sig_len))) {
        return RA_REJECTED;
    }
    return TEEC_SUCCESS;
}

} // namespace karst::emu::ra
