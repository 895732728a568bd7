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

// Copies up to length bytes from in to out; false on a read or write error.
bool copy_prefix(int in, int out, uint64_t length) {
    bool kernel_copy = true;
    uint64_t done = 0;
    while (done < length) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(length - done, 1u << 20));
        ssize_t n = -1;
        if (kernel_copy) {
            n = ::copy_file_range(in, nullptr, out, nullptr, want, 0);
            if (n < 0 &&
                (errno == ENOSYS || errno == EXDEV || errno == EINVAL || errno == EOPNOTSUPP)) {
                kernel_copy = false; // not offered here: copy through a small buffer
                continue;
            }
        } else {
            char chunk[16384];
            n = ::read(in, chunk, std::min(want, sizeof chunk));
            for (ssize_t put = 0; n > 0 && put < n;) {
                const ssize_t w = ::write(out, chunk + put, static_cast<size_t>(n - put));
                if (w <= 0) {
                    return false;
                }
                put += w;
            }
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
    board::Opened out = board::create_file(paths::EXTENDED_BUFFER, 0600, O_RDWR, KARST_SITE);
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

} // namespace

MappedImage pta_mmap_img(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t *size) {
    const img_entry *pimg = image_slot(img_id);
    if (pimg == nullptr || size == nullptr) {
        return {};
    }
    const uint32_t source = img_flags & IMG_SRC_MASK;

    std::string name;
    std::string_view board_path; // set for the board's own files, which are opened checked
    bool extended = false;
    switch (source) {
    case IMG_SRC_TABLE:
        if (pimg->kind == IMG_KIND_MMC) {
            board_path = paths::MMC_PARTITION;
        } else if (pimg->kind == IMG_KIND_FILE) {
            board_path = pimg->path;
        }
        name = platform_path(board_path);
        break;
    case IMG_SRC_BUFFER:
        if (arg == nullptr) {
            return {};
        }
        if (*size == 0) {
            *size = pimg->size;
        }
        return MappedImage::borrowed(arg);
    case IMG_SRC_FILE:
        if (arg != nullptr) {
            name = static_cast<const char *>(arg);
        }
        break;
    case IMG_SRC_EXTENDED:
        if (pimg->kind != IMG_KIND_FILE) {
            return {};
        }
        name = platform_path(paths::EXTENDED_BUFFER);
        *size = EXTENDED_SIZE;
        extended = true;
        break;
    default:
        return {};
    }
    if (name.empty() || (source == IMG_SRC_TABLE && board_path.empty())) {
        return {};
    }

    Fd fd = extended             ? make_extended_copy(pimg->path, name)
            : board_path.empty() ? Fd(fd_open(name.c_str(), O_RDONLY))
                                 : std::move(board::open_file(board_path, O_RDONLY, KARST_SITE,
                                                              board::Kind::regular_or_device)
                                                 .fd);
    if (!fd) {
        return {};
    }
    // The copy is private to this mapping: its name goes however the mapping turns out.
    struct Unlinker {
        const std::string *path;
        ~Unlinker() {
            if (path != nullptr) {
                ::unlink(path->c_str());
            }
        }
    } unlink_copy{extended ? &name : nullptr};

    off_t offset = 0;
    if (pimg->kind == IMG_KIND_MMC) {
        if (*size == 0) {
            *size = pimg->size;
        }
        offset = static_cast<off_t>(pimg->offset);
        // Never map past the end of the partition or file: those pages could not be read.
        uint64_t end = 0;
        if (!file_end(fd.get(), end) || uint64_t{pimg->offset} + *size > end) {
            return {};
        }
    } else if (pimg->kind == IMG_KIND_FILE) {
        struct stat file_stat {};
        if (::fstat(fd.get(), &file_stat) != 0 || file_stat.st_size < 0) {
            return {};
        }
        const auto file_size = static_cast<uint64_t>(file_stat.st_size);
        if (file_size > pimg->size) {
            KARST_E("Mmap %s failed because of file_stat.st_size(%llx) > pimg->size(%x)\n",
                    name.c_str(), static_cast<unsigned long long>(file_size), pimg->size);
            return {};
        }
        *size = static_cast<uint32_t>(file_size);
    } else {
        return {};
    }

    Mapping mapping;
    if (!mapping.map(fd.get(), *size, offset)) {
        return {};
    }
    KARST_I("mapping %s, size 0x%x, offset 0x%llx success\n", name.c_str(), *size,
            static_cast<unsigned long long>(offset));
    return MappedImage::owned(std::move(mapping));
}

} // namespace karst::images
