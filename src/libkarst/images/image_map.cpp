// SPDX-License-Identifier: Apache-2.0
#include "image_map.hpp"

#include "image_table.hpp"
#include "karst.h"

#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace karst::images {
namespace {

constexpr mode_t COPY_MODE = 0600;     // the extended copy is the library's alone
constexpr size_t COPY_STEP = 1u << 20; // bytes asked of the kernel at a time
constexpr size_t COPY_CHUNK = 16384;   // the buffer where the kernel copy is not offered

// Writes the n bytes at chunk to out; false on a write error (errno tells).
bool write_all(int out, const char *chunk, size_t n) {
    for (size_t put = 0; put < n;) {
        const ssize_t w = ::write(out, chunk + put, n - put);
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w <= 0) {
            errno = w == 0 ? EIO : errno;
            return false;
        }
        put += static_cast<size_t>(w);
    }
    return true;
}

// Copies up to want bytes from in to out through a small buffer: the bytes copied, 0 at the
// source's end, -1 on a read or write error.
ssize_t copy_through_buffer(int in, int out, size_t want) {
    char chunk[COPY_CHUNK];
    const ssize_t n = ::read(in, chunk, std::min(want, sizeof chunk));
    if (n > 0 && !write_all(out, chunk, static_cast<size_t>(n))) {
        return -1;
    }
    return n;
}

// Whether copy_file_range failed only because it is not offered for these files.
bool kernel_copy_unavailable(int error) {
    return error == ENOSYS || error == EXDEV || error == EINVAL || error == EOPNOTSUPP;
}

// Copies up to length bytes from in to out; false on a read or write error.
bool copy_prefix(int in, int out, uint64_t length) {
    bool kernel_copy = true;
    uint64_t done = 0;
    while (done < length) {
        const auto want = static_cast<size_t>(std::min<uint64_t>(length - done, COPY_STEP));
        const ssize_t n = kernel_copy ? ::copy_file_range(in, nullptr, out, nullptr, want, 0)
                                      : copy_through_buffer(in, out, want);
        if (n < 0 && kernel_copy && kernel_copy_unavailable(errno)) {
            kernel_copy = false; // not offered here: copy through a small buffer
            continue;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (n == 0) {
            break; // the source ends here; the rest is padding
        }
        done += static_cast<uint64_t>(n);
    }
    return true;
}

// A fresh copy of source, cut or padded with zero bytes to exactly EXTENDED_SIZE, made before
// anyone opens it: the old file is removed and the new one created exclusively, so a copy in
// progress elsewhere cannot be mixed into this one. Returns the open copy, or an empty Fd.
Fd make_extended_copy(std::string_view source, const std::string &copy) {
    const board::Opened in = board::open_file(source, O_RDONLY, KARST_SITE);
    ::unlink(copy.c_str());
    if (!in) {
        return {};
    }
    board::Opened out = board::create_file(paths::EXTENDED_BUFFER, COPY_MODE, O_RDWR, KARST_SITE);
    if (!out) {
        return {};
    }
    if (!copy_prefix(in.get(), out.get(), EXTENDED_SIZE) ||
        ::ftruncate(out.get(), EXTENDED_SIZE) != 0) {
        ::unlink(copy.c_str());
        return {};
    }
    return std::move(out.fd);
}

// The end of an open file or block device.
bool file_end(int fd, uint64_t &end) {
    const off_t pos = ::lseek(fd, 0, SEEK_END);
    if (pos < 0) {
        return false;
    }
    end = static_cast<uint64_t>(pos);
    return true;
}

// Where a slot's image is read from (all sources but the caller's buffer).
struct Source {
    std::string name;            // the file as opened and printed
    std::string_view board_path; // set for the board's own files, which are opened checked
    bool extended = false;       // the extended copy of the slot's file
};

// The file of source (img_flags bits 2..0) for slot; false when there is none. The extended copy
// sets size to its length.
bool source_of(const img_entry &slot, uint32_t source, const void *arg, uint32_t &size,
               Source &from) {
    switch (source) {
    case IMG_SRC_TABLE:
        if (slot.kind == IMG_KIND_MMC) {
            from.board_path = paths::MMC_PARTITION;
        } else if (slot.kind == IMG_KIND_FILE) {
            from.board_path = slot.path;
        }
        from.name = platform_path(from.board_path);
        return !from.board_path.empty();
    case IMG_SRC_FILE:
        if (arg != nullptr) {
            from.name = static_cast<const char *>(arg);
        }
        return !from.name.empty();
    case IMG_SRC_EXTENDED:
        if (slot.kind != IMG_KIND_FILE) {
            return false;
        }
        from.name = platform_path(paths::EXTENDED_BUFFER);
        size = EXTENDED_SIZE;
        from.extended = true;
        return true;
    default:
        return false;
    }
}

// Opens the source: the extended copy made afresh, a caller's file as given, a board file
// through its checks (refusals reported at site).
Fd open_source(const img_entry &slot, const Source &from, log::Site site) {
    if (from.extended) {
        return make_extended_copy(slot.path, from.name);
    }
    if (from.board_path.empty()) {
        return Fd(fd_open(from.name.c_str(), O_RDONLY));
    }
    return std::move(
        board::open_file(from.board_path, O_RDONLY, site, board::Kind::regular_or_device).fd);
}

// The part of the open source to map: offset and size (in/out) for an eMMC region, the whole
// file for a file slot. False when it cannot be mapped; a file above the slot's limit is reported
// at site.
bool extent_of(const img_entry &slot, int fd, const std::string &name, uint32_t &size,
               off_t &offset, log::Site site) {
    if (slot.kind == IMG_KIND_MMC) {
        if (size == 0) {
            size = slot.size;
        }
        offset = static_cast<off_t>(slot.offset);
        // Never map past the end of the partition or file: those pages could not be read.
        uint64_t end = 0;
        return file_end(fd, end) && uint64_t{slot.offset} + size <= end;
    }
    if (slot.kind != IMG_KIND_FILE) {
        return false;
    }
    struct stat file_stat {};
    if (::fstat(fd, &file_stat) != 0 || file_stat.st_size < 0) {
        return false;
    }
    const auto file_size = static_cast<uint64_t>(file_stat.st_size);
    if (file_size > slot.size) {
        KARST_E_AT(site, "Mmap %s failed because of file_stat.st_size(%llx) > pimg->size(%x)\n",
                   name.c_str(), static_cast<unsigned long long>(file_size), slot.size);
        return false;
    }
    size = static_cast<uint32_t>(file_size);
    return true;
}

// Removes the extended copy's name when the mapping is done with it, however that turns out.
struct Unlinker {
    const std::string *path;
    ~Unlinker() {
        if (path != nullptr) {
            ::unlink(path->c_str());
        }
    }
};

} // namespace

MappedImage pta_mmap_img(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t *size) {
    const img_entry *pimg = image_slot(img_id);
    if (pimg == nullptr || size == nullptr) {
        return {};
    }
    const uint32_t source = img_flags & IMG_SRC_MASK;
    if (source == IMG_SRC_BUFFER) {
        if (arg == nullptr) {
            return {};
        }
        if (*size == 0) {
            *size = pimg->size;
        }
        return MappedImage::borrowed(arg);
    }
    Source from;
    if (!source_of(*pimg, source, arg, *size, from)) {
        return {};
    }
    const Fd fd = open_source(*pimg, from, KARST_SITE);
    if (!fd) {
        return {};
    }
    const Unlinker unlink_copy{from.extended ? &from.name : nullptr};
    off_t offset = 0;
    Mapping mapping;
    if (!extent_of(*pimg, fd.get(), from.name, *size, offset, KARST_SITE) ||
        !mapping.map(fd.get(), *size, offset)) {
        return {};
    }
    KARST_I("mapping %s, size 0x%x, offset 0x%llx success\n", from.name.c_str(), *size,
            static_cast<unsigned long long>(offset));
    return MappedImage::owned(std::move(mapping));
}

} // namespace karst::images
