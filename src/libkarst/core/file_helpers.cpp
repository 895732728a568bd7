// SPDX-License-Identifier: Apache-2.0
// Whole-file read, buffer write and bounded string copy, shared by the command routines.
#include "karst.h"

#include "board_files.hpp"
#include "boundary.hpp"
#include "file_bytes.hpp"
#include "file_handle.hpp"
#include "heap_buffer.hpp"
#include "log.hpp"
#include "run_root.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr size_t READ_CHUNK = 1024;

} // namespace

namespace karst {
namespace {

// readbin's body on an open file; its messages are readbin's.
int read_whole(File file, uint8_t **buffer_out, uint32_t *size_out) {
    // A stream that cannot be measured (a pipe, a directory) or a file too large for the 32-bit
    // size is reported like a file that cannot be read whole.
    off_t end = -1;
    if (fseeko(file.get(), 0, SEEK_END) == 0) {
        end = ftello(file.get());
    }
    if (end < 0 || static_cast<uint64_t>(end) > UINT32_MAX || fseeko(file.get(), 0, SEEK_SET)) {
        KARST_E_AS("readbin", "Failed to read all data\n");
        return -1;
    }
    const auto size = static_cast<uint32_t>(end);
    *size_out = size;

    HeapBuffer buffer;
    if (!buffer.allocate(size)) {
        KARST_E_AS("readbin", "Failed to allocate buffer\n");
        return -1;
    }

    size_t total = 0;
    while (total < size) {
        const size_t want = std::min<size_t>(READ_CHUNK, size - total);
        const size_t got = std::fread(buffer.data() + total, 1, want, file.get());
        if (got == 0) {
            break;
        }
        total += got;
    }
    file.reset();

    if (total != size) {
        KARST_E_AS("readbin", "Failed to read all data\n");
        *buffer_out = nullptr;
        return -1;
    }
    *buffer_out = buffer.release();
    return 0;
}

} // namespace

board::Found FileBytes::read_board(std::string_view board_path, log::Site site, Missing missing) {
    reset();
    board::Opened opened = board::open_file(board_path, O_RDONLY, site);
    if (opened.found == board::Found::refused ||
        (opened.found == board::Found::missing && missing == Missing::quiet)) {
        return opened.found;
    }
    File file(opened ? file_from(std::move(opened.fd), "rb") : nullptr);
    if (!file) {
        KARST_E_AS("readbin", "Failed to open file:%s\n", platform_path(board_path).c_str());
        return opened.found == board::Found::ok ? board::Found::failed : opened.found;
    }
    return read_whole(std::move(file), &data_, &size_) == 0 ? board::Found::ok
                                                            : board::Found::failed;
}

bool same_file(const char *a, const char *b) {
    if (std::strcmp(a, b) == 0) {
        return true;
    }
    struct stat sa {};
    struct stat sb {};
    return ::stat(a, &sa) == 0 && ::stat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

int write_secret_file(const char *path, const void *data, uint32_t size) {
    Fd fd = board::create_fresh(path, board::SECRET_FILE_MODE);
    if (!fd) {
        KARST_E_AS("writebin", "Failed to open file:%s\n", path);
        return -1;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (uint32_t done = 0; done < size;) {
        const ssize_t n = ::write(fd.get(), bytes + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return -1;
        }
        done += static_cast<uint32_t>(n);
    }
    return ::close(fd.release()) == 0 ? 0 : -1;
}

} // namespace karst

extern "C" int readbin(const char *path, uint8_t **buffer_out, uint32_t *size_out) try {
    karst::File file = karst::File::open(path, "rb");
    if (!file) {
        KARST_E("Failed to open file:%s\n", path);
        return -1;
    }
    return karst::read_whole(std::move(file), buffer_out, size_out);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int writebin(const char *path, const void *buffer, uint32_t size) try {
    karst::File file = karst::File::open(path, "wb");
    if (!file) {
        KARST_E("Failed to open file:%s\n", path);
        return -1;
    }
    const bool written = size == 0 || std::fwrite(buffer, size, 1, file.get()) == 1;
    if (!file.close() || !written) {
        return 0; // the interface keeps a failed write's result at 0
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" void xstrcpy(char *destination, const char *source, int capacity) try {
    const size_t length = std::strlen(source);
    if (capacity <= 0) {
        return; // no room even for the terminating zero
    }
    if (static_cast<size_t>(capacity) <= length) {
        KARST_NAMED("the length is too small.\n");
        KARST_NAMED("src string is %s\n", source);
        std::memcpy(destination, source, static_cast<size_t>(capacity) - 1);
        destination[capacity - 1] = '\0';
        return;
    }
    std::memcpy(destination, source, length + 1);
} catch (...) {
    KARST_CAUGHT_VOID();
}
