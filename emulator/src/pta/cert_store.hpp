// SPDX-License-Identifier: Apache-2.0
// Certificates the application was sent by certificate replacement, kept by URI in the state
// directory (file "certificates"), for certificate retrieval to hand back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace karst::emu {

// Keeps der as the certificate of uri and as the latest certificate replaced.
void store_certificate(const std::string &uri, std::vector<uint8_t> der);

// The certificate most recently stored, by any URI; nothing before the first replacement.
std::optional<std::vector<uint8_t>> latest_certificate();

} // namespace karst::emu
