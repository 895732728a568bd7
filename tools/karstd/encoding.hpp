// SPDX-License-Identifier: Apache-2.0
// The text forms the interfaces ask for: base64 (RFC 4648, padded) and PEM blocks.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace karstd {

std::string base64(std::span<const uint8_t> bytes);
// Decodes base64, skipping white space; nothing for any other character or a bad end.
std::optional<std::vector<uint8_t>> from_base64(std::string_view text);

// "-----BEGIN <label>-----", the bytes in base64 lines of 64 characters, "-----END <label>-----".
std::string pem(const char *label, std::span<const uint8_t> der);
// The bytes of the first <label> block of text; nothing when there is none or it is broken.
std::optional<std::vector<uint8_t>> pem_block(std::string_view text, const char *label);

} // namespace karstd
