// SPDX-License-Identifier: Apache-2.0
#include "otp_store.hpp"

#include "kv_store.hpp"

#include <algorithm>
#include <cstdio>
#include <openssl/rand.h>

namespace karst::emu::otp {
namespace {

constexpr char STORE_NAME[] = "otp";
constexpr char USER_DATA[] = "user.data";
constexpr char USER_PROGRAMMED[] = "user.programmed"; // one byte per user byte: '1' programmed
constexpr char SERIAL[] = "board_sn";
constexpr size_t SERIAL_DIGITS = 10;

std::string key_name(uint32_t number) {
    char name[16];
    std::snprintf(name, sizeof name, "key.%02x", static_cast<unsigned>(number));
    return name;
}

std::string random_bytes(size_t n) {
    std::string bytes(n, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), static_cast<int>(n)) != 1) {
        return {};
    }
    return bytes;
}

// The store, with what the board is manufactured with made on first use.
bool open_store(KvStore &store) {
    if (!store.load()) {
        return false;
    }
    if (store.get(SERIAL)) {
        return true;
    }
    for (uint32_t i = 0; i < KEY_COUNT; ++i) {
        std::string k = random_bytes(KEY_SIZE);
        if (k.empty()) {
            return false;
        }
        store.set(key_name(i), std::move(k));
    }
    store.set(USER_DATA, std::string(USER_AREA_SIZE, '\0'));
    store.set(USER_PROGRAMMED, std::string(USER_AREA_SIZE, '0'));
    const std::string digits = random_bytes(SERIAL_DIGITS);
    if (digits.empty()) {
        return false;
    }
    std::string serial = "KB";
    for (char c : digits) {
        serial += static_cast<char>('0' + static_cast<unsigned char>(c) % 10);
    }
    store.set(SERIAL, serial);
    return store.save();
}

bool in_area(uint32_t offset, size_t size) {
    return offset <= USER_AREA_SIZE && size <= USER_AREA_SIZE - offset;
}

} // namespace

std::optional<std::vector<uint8_t>> key(uint32_t number) {
    KvStore store(STORE_NAME);
    if (number >= KEY_COUNT || !open_store(store)) {
        return std::nullopt;
    }
    const auto k = store.get(key_name(number));
    if (!k) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(k->begin(), k->end());
}

Programming program_user_area(uint32_t offset, std::span<const uint8_t> data) {
    if (!in_area(offset, data.size())) {
        return Programming::outside_area;
    }
    KvStore store(STORE_NAME);
    if (!open_store(store)) {
        return Programming::storage_failed;
    }
    std::string user = store.get(USER_DATA).value_or(std::string(USER_AREA_SIZE, '\0'));
    std::string programmed = store.get(USER_PROGRAMMED).value_or(std::string(USER_AREA_SIZE, '0'));
    user.resize(USER_AREA_SIZE, '\0');
    programmed.resize(USER_AREA_SIZE, '0');
    for (size_t i = 0; i < data.size(); ++i) {
        if (programmed[offset + i] != '0') {
            return Programming::already_programmed;
        }
    }
    for (size_t i = 0; i < data.size(); ++i) {
        user[offset + i] = static_cast<char>(data[i]);
        programmed[offset + i] = '1';
    }
    store.set(USER_DATA, std::move(user));
    store.set(USER_PROGRAMMED, std::move(programmed));
    return store.save() ? Programming::done : Programming::storage_failed;
}

bool read_user_area(uint32_t offset, std::span<uint8_t> out) {
    KvStore store(STORE_NAME);
    if (!in_area(offset, out.size()) || !open_store(store)) {
        return false;
    }
    std::string user = store.get(USER_DATA).value_or("");
    user.resize(USER_AREA_SIZE, '\0');
    std::copy_n(user.begin() + offset, out.size(), out.begin());
    return true;
}

std::string board_serial() {
    KvStore store(STORE_NAME);
    if (!open_store(store)) {
        return {};
    }
    return store.get(SERIAL).value_or("");
}

} // namespace karst::emu::otp
