// SPDX-License-Identifier: Apache-2.0
#include "file_handle.hpp"

#include "fault_injection.hpp"

#include <cerrno>
#include <fcntl.h>

namespace karst {

std::FILE *file_open(const char *path, const char *mode) {
    if (fault::inject(fault::Kind::file)) {
        errno = EIO;
        return nullptr;
    }
    // Close on exec: shell commands run by the library must not inherit the library's files.
    char with_cloexec[8];
    std::snprintf(with_cloexec, sizeof with_cloexec, "%se", mode);
    return std::fopen(path, with_cloexec);
}

int fd_open(const char *path, int flags, int mode) {
    if (fault::inject(fault::Kind::file)) {
        errno = EIO;
        return -1;
    }
    return ::open(path, flags | O_CLOEXEC, mode);
}

DIR *directory_open(const char *path) {
    if (fault::inject(fault::Kind::file)) {
        errno = EIO;
        return nullptr;
    }
    return ::opendir(path);
}

} // namespace karst
