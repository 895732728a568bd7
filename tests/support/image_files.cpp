#include "support/image_files.hpp"

#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace karst::test {

std::string image_bytes(size_t size, uint8_t seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<char>((i * 31 + seed) & 0xFF);
    }
    const char header[4] = {0x53, 0x00, 0x00, static_cast<char>(seed)};
    data.replace(0, std::min<size_t>(size, 4), header, std::min<size_t>(size, 4));
    return data;
}

std::string unsigned_image_bytes(size_t size, uint8_t seed) {
    std::string data = image_bytes(size, seed);
    if (!data.empty()) {
        data[0] = 'X';
    }
    return data;
}

void make_sized_file(const std::string &path, uint64_t size, const std::string &start) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return;
    }
    (void)!::ftruncate(fd, static_cast<off_t>(size));
    (void)!::pwrite(fd, start.data(), start.size(), 0);
    ::close(fd);
}

int mappings_of(const std::string &path) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(maps, line)) {
        const size_t at = line.find(path);
        if (at != std::string::npos && at + path.size() == line.size()) {
            ++count;
        }
    }
    return count;
}

} // namespace karst::test
