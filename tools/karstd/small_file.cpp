// SPDX-License-Identifier: Apache-2.0
#include "small_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace karstd {

std::optional<std::vector<uint8_t>> read_small_file(const std::string &path, size_t max) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat st {};
    std::optional<std::vector<uint8_t>> result;
    if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 &&
        static_cast<uint64_t>(st.st_size) <= max) {
        std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
        if (::pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size())) {
            result = std::move(bytes);
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return result;
}

} // namespace karstd
