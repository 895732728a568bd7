// SPDX-License-Identifier: Apache-2.0
// The device's identity as the secure world holds it: a key pair that never leaves it, and the
// certificate chain issued for it at manufacture. Both are made on first use and kept in the
// emulator's state directory, so every process sees the same device.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace karst::emu::identity {

// The device key's public half, PEM (SubjectPublicKeyInfo). Empty when the key is unusable.
std::string device_public_key_pem();

// ECDSA P-256 with SHA-256 over data, DER-encoded. Empty on failure.
std::vector<uint8_t> sign(std::span<const uint8_t> data);
// Whether signature is the device key's signature over data.
bool verify(std::span<const uint8_t> data, std::span<const uint8_t> signature);

// Certificate signing request for the device key: DER, subject from text of the form
// "CN=name,O=org,..." (an empty or malformed text gives CN=karst-device). Empty on failure.
std::vector<uint8_t> make_csr(const std::string &subject);

// The factory certificate chain: DER certificates back to back, root first.
//   position 0: root CA (RSA-2048, self-signed)
//   position 1: intermediate CA (Ed25519, issued by the root)
//   position 2: device CA (Ed25519, issued by the intermediate; short enough for DER's
//               one-byte long length form, 0x81)
//   position 3: the device certificate (the device key, issued by the device CA)
std::vector<uint8_t> certificate_chain();
// The chain's certificates one by one (DER).
std::vector<std::vector<uint8_t>> chain_certificates();

} // namespace karst::emu::identity
