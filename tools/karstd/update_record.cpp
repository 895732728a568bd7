// SPDX-License-Identifier: Apache-2.0
#include "update_record.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace karstd {
namespace {

constexpr mode_t RECORD_MODE = 0600;
constexpr size_t RECORD_MAX = 4096;
constexpr char PATH_KEY[] = "path=";
constexpr char ACTIVE[] = "result=Active\n";
constexpr char FAILED[] = "result=Failed\n";

bool write_all(int fd, const std::string &text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string read_all(int fd) {
    std::array<char, RECORD_MAX> buffer{};
    const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), 0);
    return n > 0 ? std::string(buffer.data(), static_cast<size_t>(n)) : std::string();
}

} // namespace

UpdateRecord::UpdateRecord(std::string dir, const char *type)
    : file_(std::move(dir) + "/" + type + ".update") {}

int UpdateRecord::create(const std::string &path) const {
    const std::string fresh = file_ + ".new";
    ::unlink(fresh.c_str());
    const int fd =
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, RECORD_MODE);
    if (fd < 0) {
        return -1;
    }
    if (::flock(fd, LOCK_EX) != 0 || !write_all(fd, PATH_KEY + path + "\n") ||
        ::rename(fresh.c_str(), file_.c_str()) != 0) {
        ::close(fd);
        ::unlink(fresh.c_str());
        return -1;
    }
    return fd;
}

RecordRead UpdateRecord::read() const {
    RecordRead record;
    const int fd = ::open(file_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return record;
    }
    const bool locked = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    const std::string text = read_all(fd);
    ::close(fd);
    if (text.rfind(PATH_KEY, 0) != 0 || text.find('\n') == std::string::npos) {
        return record; // not a record karstd wrote
    }
    record.path = text.substr(sizeof PATH_KEY - 1, text.find('\n') - (sizeof PATH_KEY - 1));
    if (locked) {
        record.state = RecordState::running;
    } else {
        record.state =
            text.find(ACTIVE) != std::string::npos ? RecordState::active : RecordState::failed;
    }
    return record;
}

void UpdateRecord::remove() const {
    ::unlink(file_.c_str());
}

void UpdateRecord::finish(int fd, bool succeeded) {
    (void)write_all(fd, succeeded ? ACTIVE : FAILED);
    ::fsync(fd);
}

} // namespace karstd
