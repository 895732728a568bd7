// SPDX-License-Identifier: Apache-2.0
#include "encoding.hpp"

#include <array>

namespace karstd {
namespace {

constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t PEM_LINE = 64;
constexpr int BITS = 6;
constexpr uint32_t SEXTET = 0x3F;
constexpr uint32_t OCTET = 0xFF;

// The value of a base64 character, or -1.
int value_of(char c) {
    static const std::array<int8_t, 256> values = [] {
        std::array<int8_t, 256> v{};
        v.fill(-1);
        for (int i = 0; ALPHABET[i] != '\0'; ++i) {
            v[static_cast<uint8_t>(ALPHABET[i])] = static_cast<int8_t>(i);
        }
        return v;
    }();
    return values[static_cast<uint8_t>(c)];
}

} // namespace

std::string base64(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
        group |= n > 1 ? static_cast<uint32_t>(bytes[i + 1]) << 8 : 0;
        group |= n > 2 ? bytes[i + 2] : 0;
        for (size_t k = 0; k < 4; ++k) {
            out += k <= n ? ALPHABET[(group >> (BITS * (3 - k))) & SEXTET] : '=';
        }
    }
    return out;
}

std::optional<std::vector<uint8_t>> from_base64(std::string_view text) {
    std::vector<uint8_t> out;
    uint32_t group = 0;
    int bits = 0;
    size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
            continue;
        }
        if (c == '=' && ++padding <= 2) {
            continue;
        }
        const int v = value_of(c);
        if (v < 0 || padding > 0) {
            return std::nullopt;
        }
        group = (group << BITS) | static_cast<uint32_t>(v);
        bits += BITS;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>((group >> bits) & OCTET));
        }
    }
    return out;
}

std::string pem(const char *label, std::span<const uint8_t> der) {
    const std::string body = base64(der);
    std::string out = std::string("-----BEGIN ") + label + "-----\n";
    for (size_t i = 0; i < body.size(); i += PEM_LINE) {
        out += body.substr(i, PEM_LINE) + "\n";
    }
    return out + "-----END " + label + "-----\n";
}

std::optional<std::vector<uint8_t>> pem_block(std::string_view text, const char *label) {
    const std::string begin = std::string("-----BEGIN ") + label + "-----";
    const std::string end = std::string("-----END ") + label + "-----";
    const size_t start = text.find(begin);
    const size_t stop = start == std::string_view::npos ? start : text.find(end, start);
    if (stop == std::string_view::npos) {
        return std::nullopt;
    }
    return from_base64(text.substr(start + begin.size(), stop - start - begin.size()));
}

} // namespace karstd
