// SPDX-License-Identifier: Apache-2.0
#include "cert_store.hpp"

#include "kv_store.hpp"

namespace karst::emu {
namespace {

constexpr char STORE_NAME[] = "certificates";
// URIs are kept under "uri:<uri>"; the latest certificate under a key no URI can take.
constexpr char URI_PREFIX[] = "uri:";
constexpr char LATEST_KEY[] = "latest";

} // namespace

void store_certificate(const std::string &uri, std::vector<uint8_t> der) {
    KvStore store(STORE_NAME);
    if (!store.load()) {
        return;
    }
    std::string bytes(der.begin(), der.end());
    store.set(URI_PREFIX + uri, bytes);
    store.set(LATEST_KEY, std::move(bytes));
    store.save();
}

std::optional<std::vector<uint8_t>> latest_certificate() {
    KvStore store(STORE_NAME);
    if (!store.load()) {
        return std::nullopt;
    }
    const auto bytes = store.get(LATEST_KEY);
    if (!bytes) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(bytes->begin(), bytes->end());
}

} // namespace karst::emu
