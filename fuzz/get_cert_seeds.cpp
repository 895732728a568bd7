// Writes the seed corpus of get_cert_fuzz into a directory: chains in each DER length form,
// for each index, and a few broken ones.
//   get_cert_seeds DIR
#include "get_cert_input.hpp"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// A certificate-shaped item: tag 0x30, the length in its shortest DER form, content bytes.
Bytes item(uint32_t content, uint8_t fill) {
    Bytes b = {0x30};
    if (content < 0x80) {
        b.push_back(static_cast<uint8_t>(content));
    } else if (content <= 0xFF) {
        b.insert(b.end(), {0x81, static_cast<uint8_t>(content)});
    } else {
        b.insert(b.end(),
                 {0x82, static_cast<uint8_t>(content >> 8), static_cast<uint8_t>(content)});
    }
    b.insert(b.end(), content, fill);
    return b;
}

Bytes seed(int32_t index, uint32_t capacity, const Bytes &answer) {
    Bytes s = {static_cast<uint8_t>(index + 1), static_cast<uint8_t>(capacity >> 8),
               static_cast<uint8_t>(capacity)};
    s.insert(s.end(), answer.begin(), answer.end());
    return s;
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

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    Bytes chain;
    for (const Bytes &c : {item(900, 1), item(300, 2), item(200, 3), item(5, 4)}) {
        chain.insert(chain.end(), c.begin(), c.end());
    }
    bool ok = true;
    for (int32_t index = -1; index <= 6; ++index) {
        ok = ok && write_seed(dir, "chain_" + std::to_string(index + 1), seed(index, 4096, chain));
    }
    Bytes broken = chain;
    broken[2] = 0xFF; // the first length runs past the data
    ok = ok && write_seed(dir, "overrun", seed(0, 4096, broken));
    ok = ok && write_seed(dir, "long_length", seed(4, 64, {0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF}));
    ok = ok && write_seed(dir, "bad_tag", seed(2, 64, {0x30, 0x01, 0x00, 0x31, 0x00}));
    ok = ok && write_seed(dir, "small_buffer", seed(4, 16, chain));
    return ok ? 0 : 1;
}
