// SPDX-License-Identifier: Apache-2.0
#include "record_lock.hpp"

#include "core/fault_injection.hpp"

#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace karst::config {
namespace {

struct flock whole_file(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    return lock;
}

} // namespace

std::mutex &process_file_mutex() {
    static std::mutex mutex;
    return mutex;
}

bool RecordLock::acquire(int fd, short type) {
    if (fault::inject(fault::Kind::lock)) {
        errno = ENOLCK;
        return false;
    }
    struct flock lock = whole_file(type);
    int rc = 0;
    do {
        rc = ::fcntl(fd, F_SETLKW, &lock);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return false;
    }
    fd_ = fd;
    return true;
}

bool RecordLock::release() {
    const int fd = std::exchange(fd_, -1);
    if (fd < 0) {
        return true;
    }
    struct flock lock = whole_file(F_UNLCK);
    return ::fcntl(fd, F_SETLK, &lock) == 0;
}

} // namespace karst::config
