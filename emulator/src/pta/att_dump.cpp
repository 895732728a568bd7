// SPDX-License-Identifier: Apache-2.0
// Attestation dump (12). The application binds the nonce and the attestation data block it was
// sent with the device key:
//
//   result, 66,560 bytes:
//     0 .. 65,535       the data block as sent (zeros where none was sent)
//     65,536 .. 65,791  the statement, text zero-filled: "KARST-ATT v1\n", "nonce=<nonce>\n",
//                       "block-size=<bytes sent>\n", "sha256=<hex of SHA-256(nonce, block)>\n"
//     65,792 .. 66,559  the device key's ECDSA-SHA256 signature (DER, zero-filled) over bytes
//                       0 .. 65,791
//   digest info: the first 16 hex digits of SHA-256(nonce, block), with its terminating zero.
//
// Refused: a nonce of 0 or more than 64 bytes, a block of more than 65,536 bytes
// (TEEC_ERROR_BAD_PARAMETERS); a block without the attestation magic id
// (TEEC_ERROR_BAD_FORMAT).
#include "application.hpp"
#include "byte_order.hpp"
#include "datablk_reader.hpp"
#include "device_identity.hpp"

#include <cstdio>
#include <openssl/sha.h>
#include <string>
#include <vector>

namespace karst::emu {
namespace {

constexpr size_t BLOCK_MAX = 65536;
constexpr size_t STATEMENT_SIZE = 256;
constexpr size_t SIGNATURE_SIZE = 768;
constexpr size_t RESULT_SIZE = BLOCK_MAX + STATEMENT_SIZE + SIGNATURE_SIZE; // 66,560
constexpr size_t NONCE_MAX = 64;
constexpr size_t DIGEST_INFO_DIGITS = 16;

std::string hex(const uint8_t *bytes, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(two, sizeof two, "%02x", bytes[i]);
        out += two;
    }
    return out;
}

} // namespace

TEEC_Result att_dump(Params &params) {
    const bool with_block = params.are(Kind::mem_out, Kind::mem_out, Kind::mem_in, Kind::mem_in);
    if (!with_block && !params.are(Kind::mem_out, Kind::mem_out, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const std::span<uint8_t> nonce = params[2].memory;
    const std::span<uint8_t> block = with_block ? params[3].memory : std::span<uint8_t>();
    if (nonce.empty() || nonce.size() > NONCE_MAX || block.size() > BLOCK_MAX) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (with_block && (block.size() < datablk::MAGIC_OFFSET + sizeof(uint32_t) ||
                       load_le32(block.data() + datablk::MAGIC_OFFSET) != datablk::MAGIC_ATT)) {
        return TEEC_ERROR_BAD_FORMAT;
    }

    std::vector<uint8_t> bound(nonce.begin(), nonce.end());
    bound.insert(bound.end(), block.begin(), block.end());
    uint8_t digest[SHA256_DIGEST_LENGTH];
    SHA256(bound.data(), bound.size(), digest);
    const std::string digest_hex = hex(digest, sizeof digest);

    std::vector<uint8_t> result(RESULT_SIZE, 0);
    std::copy(block.begin(), block.end(), result.begin());
    const std::string statement = "KARST-ATT v1\nnonce=" + std::string(nonce.begin(), nonce.end()) +
                                  "\nblock-size=" + std::to_string(block.size()) +
                                  "\nsha256=" + digest_hex + "\n";
    std::copy(statement.begin(), statement.end(), result.begin() + BLOCK_MAX);
    const auto signature = identity::sign(std::span(result.data(), BLOCK_MAX + STATEMENT_SIZE));
    if (signature.empty() || signature.size() > SIGNATURE_SIZE) {
        return TEEC_ERROR_GENERIC;
    }
    std::copy(signature.begin(), signature.end(), result.begin() + BLOCK_MAX + STATEMENT_SIZE);

    const std::string info = digest_hex.substr(0, DIGEST_INFO_DIGITS);
    if (TEEC_Result res = params[0].put(result.data(), result.size()); res != TEEC_SUCCESS) {
        return res;
    }
    return params[1].put(info.c_str(), info.size() + 1);
}

} // namespace karst::emu
