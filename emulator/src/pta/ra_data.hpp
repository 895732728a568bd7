// SPDX-License-Identifier: Apache-2.0
// Remote attestation (RA) data as the secure world issues and later accepts it.
//
// Issued by the RA certificate replacement: 66,560 bytes, the first 65,536 the RA data and the
// last 1,024 a signature region. The RA data starts with the text "KARST-RA-DATA v1\n", then
// lines "tid=<16 hex digits>\n" (the RA_TID sent, or zeros) and "cert-sha256=<64 hex digits>\n"
// (digest of the RA certificate sent), zero-filled to 65,536 bytes. The signature region holds
// the device key's ECDSA-SHA256 signature over the 65,536 data bytes (DER), zero-filled.
//
// Accepted by the RA refresh when the signature (its DER length taken from its own header) is
// the device key's signature over the data sent and the data starts with the same text;
// anything else is answered RA_REJECTED.
#pragma once

#include "tee_client_api.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace karst::emu::ra {

constexpr size_t DATA_SIZE = 65536;
constexpr size_t SIGNATURE_SIZE = 1024;
constexpr size_t RESULT_SIZE = DATA_SIZE + SIGNATURE_SIZE; // 66,560
// The application's answer to RA data it did not issue, or whose signature does not hold.
constexpr TEEC_Result RA_REJECTED = 0xFFFF3074;

// Issues RA data for a certificate; empty when the device key is unusable.
std::vector<uint8_t> issue(std::span<const uint8_t> certificate, std::span<const uint8_t> tid);

// Checks RA data and its signature region as a refresh sends them.
TEEC_Result check(std::span<const uint8_t> data, std::span<const uint8_t> signature);

} // namespace karst::emu::ra
