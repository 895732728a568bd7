// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary blocks to the data block operations (get, get_info, set, update_crc, check)
// and checks, besides memory safety, the rules that hold on any block:
// - a set that fails leaves every byte of the block as it was;
// - a set that succeeds leaves a correct CRC, and a block that checks still checks;
// and, on blocks built from a fresh create, that the block always agrees with a simple model
// of its keys: the values read back, the used length, the room rule of set.
// An input: byte 0 the mode (even: a foreign block, as other software might hand it over; odd:
// a build). Foreign: flags, key length, key, value length (2 bytes), value, get capacity
// (2 bytes), then the block itself. Build: block size (2 bytes), then operations until the
// input ends: key index, value length, value bytes. Seeds: fuzz/corpus/datablk.
#include "datablk/header.hpp"
#include "datablk/klv.hpp"
#include "karst.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr uint8_t FOREIGN = 0;
constexpr uint8_t FIX_DATA_LEN = 1;       // make max_data_len fit the bytes given
constexpr uint8_t FIX_CRC = 2;            // store a correct CRC before the operations
constexpr uint32_t BUILD_MAX_SIZE = 4096; // block sizes 17 .. 17 + BUILD_MAX_SIZE - 1
constexpr uint32_t BUILD_KEYS = 8;        // keys "k0" .. "k7" and longer ones (see key_name)

using Bytes = std::vector<uint8_t>;

// A broken rule stops the run with the rule's line, so that the crash report names it.
#define require(ok) check_rule(ok, __LINE__)
void check_rule(bool ok, int line) {
    if (!ok) {
        std::fprintf(stderr, "datablk_fuzz: rule at line %d broken\n", line);
        std::abort();
    }
}

struct Reader {
    const uint8_t *p;
    size_t left;
    uint32_t byte() { return take(1) ? p[-1] : 0; }
    uint32_t word() { return byte() << 8 | byte(); }
    bool take(size_t n) {
        if (n > left) {
            return false;
        }
        p += n;
        left -= n;
        return true;
    }
    Bytes bytes(size_t n) {
        n = n < left ? n : left;
        Bytes out(p, p + n);
        take(n);
        return out;
    }
};

// A heap buffer of exactly n bytes (a copy of bytes, or zeroed), so that the sanitizer sees any
// access past it.
std::unique_ptr<uint8_t[]> exact(const uint8_t *bytes, size_t n) {
    auto buf = std::make_unique<uint8_t[]>(n == 0 ? 1 : n);
    if (bytes != nullptr && n > 0) {
        std::memcpy(buf.get(), bytes, n);
    }
    return buf;
}

void foreign_block(Reader in) {
    const uint32_t flags = in.byte();
    const Bytes key_bytes = in.bytes(in.byte());
    const std::string key(key_bytes.begin(), key_bytes.end());
    const Bytes value = in.bytes(in.word());
    const uint32_t capacity = in.word();
    const size_t size = in.left;
    auto blk = exact(in.p, size);

    pta20_datablk_check(blk.get(), static_cast<uint32_t>(size));
    if (size < karst::datablk::HEADER_LEN) {
        return; // below the header: the calls without a length are not given such a buffer
    }
    if ((flags & FIX_DATA_LEN) != 0 && size > karst::datablk::HEADER_LEN) {
        karst::datablk::store_be32(blk.get() + 12,
                                   static_cast<uint32_t>(size - karst::datablk::HEADER_LEN));
    }
    // The calls that take no length read what the header claims: keep to what the caller
    // guarantees, a claim within the buffer (or one they refuse outright).
    const uint32_t claimed = karst::datablk::max_data_len(blk.get());
    if (karst::datablk::datablk_len_ok(claimed) && claimed > size - karst::datablk::HEADER_LEN) {
        return;
    }
    if ((flags & FIX_CRC) != 0) {
        pta20_datablk_update_crc(0, blk.get());
    }
    for (int32_t opt = 0; opt <= 4; ++opt) {
        pta20_datablk_get_info(blk.get(), opt);
    }

    const uint32_t cap = capacity == 0 ? 1 : capacity;
    auto out = std::make_unique<uint8_t[]>(cap);
    uint32_t len = cap;
    if (pta20_datablk_get(0, key.c_str(), out.get(), &len, blk.get()) == 0) {
        require(len <= cap);
    }

    const Bytes before(blk.get(), blk.get() + size);
    const bool checked = pta20_datablk_check(blk.get(), static_cast<uint32_t>(size)) == 0;
    const uint32_t magic = karst::datablk::magic_id(blk.get());
    const int rc = pta20_datablk_set(magic, key.c_str(), value.empty() ? nullptr : value.data(),
                                     static_cast<uint32_t>(value.size()), blk.get());
    if (rc != 0) {
        require(std::memcmp(before.data(), blk.get(), size) == 0);
    } else {
        require(karst::datablk::datablk_crc_ok(blk.get()));
        // A block that checks stays one that checks across a successful set.
        require(!checked || pta20_datablk_check(blk.get(), static_cast<uint32_t>(size)) == 0);
    }
}

std::string key_name(uint32_t index) {
    // Mostly short keys that collide often, now and then one of the longest allowed.
    if (index % 16 == 15) {
        return std::string(255, static_cast<char>('a' + index % 7));
    }
    return "k" + std::to_string(index % BUILD_KEYS);
}

void built_block(Reader in) {
    const uint32_t size = 17 + in.word() % BUILD_MAX_SIZE;
    auto blk = exact(nullptr, size);
    require(pta20_datablk_create(DATABLK_MAGIC_FW, blk.get(), size) == 0);
    const uint32_t area = size - karst::datablk::HEADER_LEN;

    std::vector<std::string> order; // keys in the order first stored
    std::map<std::string, Bytes> model;
    uint64_t used = 0;
    while (in.left > 0) {
        const std::string key = key_name(in.byte());
        const Bytes value = in.bytes(in.byte() + 1);
        if (value.empty()) {
            break; // the input ended inside the operation
        }
        const auto len = static_cast<uint32_t>(value.size());
        const uint64_t need = karst::klv::pair_size(key.size(), len);
        const auto it = model.find(key);
        const bool same = it != model.end() && it->second == value;
        const bool fits = need <= area - used;

        const Bytes before(blk.get(), blk.get() + size);
        const int rc =
            pta20_datablk_set(DATABLK_MAGIC_FW, key.c_str(), value.data(), len, blk.get());
        require((rc == 0) == (same || fits));
        if (rc != 0 || same) {
            require(std::memcmp(before.data(), blk.get(), size) == 0);
            continue;
        }
        if (it == model.end()) {
            order.push_back(key);
        } else {
            used -= karst::klv::pair_size(key.size(), static_cast<uint32_t>(it->second.size()));
        }
        model[key] = value;
        used += need;

        require(pta20_datablk_check(blk.get(), size) == 0);
        const int32_t reported = pta20_datablk_get_info(blk.get(), DATABLK_INFO_USED_LEN);
        require(used == area ? reported == -1 : reported == static_cast<int32_t>(used));
    }

    // Every value reads back, and the block is byte for byte the one built in that order.
    auto fresh = exact(nullptr, size);
    require(pta20_datablk_create(DATABLK_MAGIC_FW, fresh.get(), size) == 0);
    for (const std::string &key : order) {
        const Bytes &value = model[key];
        uint8_t out[256];
        uint32_t len = sizeof out;
        require(pta20_datablk_get(0, key.c_str(), out, &len, blk.get()) == 0);
        require(len == value.size() && std::memcmp(out, value.data(), len) == 0);
        require(pta20_datablk_set(DATABLK_MAGIC_FW, key.c_str(), value.data(),
                                  static_cast<uint32_t>(value.size()), fresh.get()) == 0);
    }
    require(std::memcmp(fresh.get(), blk.get(), size) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Reader in{data, size};
    if (in.byte() % 2 == FOREIGN) {
        foreign_block(in);
    } else {
        built_block(in);
    }
    return 0;
}
