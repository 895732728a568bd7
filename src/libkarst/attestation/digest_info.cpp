// SPDX-License-Identifier: Apache-2.0
#include "digest_info.hpp"

#include <cstring>

namespace karst::att {

std::optional<std::string> digest_info_text(std::span<const std::uint8_t> buffer) {
    const void *nul = std::memchr(buffer.data(), 0, buffer.size());
    if (nul == nullptr) {
        return std::nullopt;
    }
    std::string text(reinterpret_cast<const char *>(buffer.data()),
                     static_cast<const std::uint8_t *>(nul) - buffer.data());
    for (char c : text) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_' ||
                             c == '+' || c == '=' || c == ':' || c == ',' || c == '@';
        if (!allowed) {
            return std::nullopt;
        }
    }
    if (text.find("..") != std::string::npos) {
        return std::nullopt;
    }
    return text;
}

} // namespace karst::att
