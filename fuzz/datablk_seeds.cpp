// Writes the seed corpus of datablk_fuzz into a directory: valid blocks made by the library,
// each with a key to read and store, and a few build sequences.
//   datablk_seeds DIR
#include "datablk_input.hpp"

#include "karst.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

void put_word(Bytes &out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

bool write_seed(const std::string &dir, const std::string &name, const Bytes &bytes) {
    const std::string path = dir + "/" + name;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

// A block of size bytes holding the given pairs.
Bytes block(uint32_t size, const std::vector<std::pair<std::string, Bytes>> &pairs) {
    Bytes blk(size);
    pta20_datablk_create(DATABLK_MAGIC_CERT, blk.data(), size);
    for (const auto &[key, value] : pairs) {
        pta20_datablk_set(DATABLK_MAGIC_CERT, key.c_str(), value.data(),
                          static_cast<uint32_t>(value.size()), blk.data());
    }
    return blk;
}

Bytes foreign(uint8_t flags, const std::string &key, const Bytes &value, uint32_t capacity,
              const Bytes &blk) {
    Bytes out = {fuzz_input::FOREIGN, flags, static_cast<uint8_t>(key.size())};
    out.insert(out.end(), key.begin(), key.end());
    put_word(out, static_cast<uint32_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
    put_word(out, capacity);
    out.insert(out.end(), blk.begin(), blk.end());
    return out;
}

Bytes build(uint32_t size, const std::vector<std::pair<uint8_t, uint8_t>> &ops) {
    Bytes out = {fuzz_input::BUILD};
    put_word(out, size - 17);
    uint8_t fill = 1;
    for (const auto &[key, len] : ops) {
        out.push_back(key);
        out.push_back(static_cast<uint8_t>(len - 1));
        out.insert(out.end(), len, fill++);
    }
    return out;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const Bytes three = {1, 2, 3};
    const Bytes cert(300, 0x30);
    std::vector<std::pair<std::string, Bytes>> many;
    for (int i = 0; i < 20; ++i) {
        many.emplace_back("key" + std::to_string(i), Bytes(static_cast<size_t>(i) + 1, 0x40));
    }

    bool ok = true;
    ok &= write_seed(dir, "empty", foreign(0, "ra_uid", three, 16, block(64, {})));
    ok &= write_seed(dir, "one-pair",
                     foreign(0, "ra_uid", {9, 9}, 16, block(64, {{"ra_uid", three}})));
    ok &= write_seed(dir, "full", foreign(0, "k", {1}, 64, block(64, {{"k", Bytes(42, 1)}})));
    ok &= write_seed(dir, "long-value",
                     foreign(0, "cert", Bytes(10, 2), 512,
                             block(400, {{"uri", {'/', 'r'}}, {"cert", cert}, {"end", three}})));
    ok &= write_seed(dir, "many-keys", foreign(0, "key7", Bytes(30, 3), 64, block(512, many)));
    ok &= write_seed(dir, "stale-crc",
                     foreign(fuzz_input::FIX_DATA_LEN | fuzz_input::FIX_CRC, "a", three, 8,
                             block(48, {{"a", {1}}, {"b", {2}}})));
    ok &= write_seed(dir, "build-replace", build(64, {{0, 3}, {1, 5}, {0, 10}, {0, 1}, {2, 20}}));
    ok &= write_seed(dir, "build-fill", build(300, {{0, 200}, {1, 60}, {2, 20}, {1, 1}, {3, 9}}));
    ok &= write_seed(dir, "build-long-key", build(1000, {{15, 30}, {1, 200}, {15, 1}}));
    return ok ? 0 : 1;
}
