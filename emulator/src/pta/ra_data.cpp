// SPDX-License-Identifier: Apache-2.0
#include "ra_data.hpp"

#include "certificate_der.hpp"
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

// The most bytes the length of a signature is given in.
constexpr size_t SIGNATURE_LENGTH_BYTES = 2;

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
    const size_t sig_len = der::sequence_size(signature, SIGNATURE_LENGTH_BYTES);
    if (sig_len == 0 || !identity::verify(data, signature.first(sig_len))) {
        return RA_REJECTED;
    }
    return TEEC_SUCCESS;
}

} // namespace karst::emu::ra
