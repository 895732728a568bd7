// SPDX-License-Identifier: Apache-2.0
// Owners for open files: a stdio stream, a file descriptor and a directory listing, closed on
// every path.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace karst {

// The library's single points where files are opened.
std::FILE *file_open(const char *path, const char *mode);
int fd_open(const char *path, int flags, int mode = 0);
DIR *directory_open(const char *path);

class Fd;
// A stdio stream over an open descriptor, which it then owns (closed here when that fails).
std::FILE *file_from(Fd fd, const char *mode);

class File {
  public:
    File() = default;
    explicit File(std::FILE *f) : f_(f) {}
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    File(File &&other) noexcept : f_(std::exchange(other.f_, nullptr)) {}
    File &operator=(File &&other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.f_, nullptr));
        }
        return *this;
    }
    ~File() { reset(); }

    static File open(const char *path, const char *mode) { return File(file_open(path, mode)); }

    std::FILE *get() const { return f_; }
    explicit operator bool() const { return f_ != nullptr; }
    // Closes now; false when the stream could not be flushed.
    bool close() { return std::fclose(std::exchange(f_, nullptr)) == 0; }
    // Writes size bytes and closes the stream: true when every byte reached the file.
    bool write_and_close(const void *data, std::size_t size) {
        const bool written = size == 0 || std::fwrite(data, 1, size, f_) == size;
        return close() && written;
    }
    void reset(std::FILE *f = nullptr) {
        if (f_ != nullptr) {
            std::fclose(f_);
        }
        f_ = f;
    }

  private:
    std::FILE *f_ = nullptr;
};

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }
    ~Fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

inline std::FILE *file_from(Fd fd, const char *mode) {
    std::FILE *file = ::fdopen(fd.get(), mode);
    if (file != nullptr) {
        fd.release();
    }
    return file;
}

struct DirCloser {
    void operator()(DIR *dir) const { ::closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirCloser>;

} // namespace karst
