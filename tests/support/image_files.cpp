// SPDX-License-Identifier: Apache-2.0
#include "support/image_files.hpp"

#include "support/test_env.hpp"

#include <filesystem>
#include <fstream>

namespace karst::test {

constexpr size_t PATTERN_STEP = 31; // the pattern's byte i is i * step + seed

std::string image_bytes(size_t size, uint8_t seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>((i * PATTERN_STEP + seed) & 0xFF);
    }
    const char header[4] = {0x53, 0x00, 0x00, static_cast<char>(seed)};
    data.replace(0, std::min<size_t>(size, 4), header, std::min<size_t>(size, 4));
    return data;
}

std::string unsigned_image_bytes(size_t size, uint8_t seed) {
    std::string data = image_bytes(size, seed);
    data.replace(0, std::min<size_t>(size, 1), std::min<size_t>(size, 1), 'X');
    return data;
}

void make_sized_file(const std::string &path, uint64_t size, const std::string &start) {
    write_file(path, start);
    std::error_code ec;
    std::filesystem::resize_file(path, std::max<uint64_t>(size, start.size()), ec);
}

int mappings_of(const std::string &path) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        const size_t at = line.find(path);
        count += at != std::string::npos && at + path.size() == line.size() ? 1 : 0;
    }
    return count;
}

} // namespace karst::test
