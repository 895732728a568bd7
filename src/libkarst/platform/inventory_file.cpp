// The inventory file: key=value lines shared by every process of the controller. read_config
// looks a key up under a read lock; write_config adds or replaces a key under a write lock and
// rewrites only the part of the file from the first changed entry on.
#include "karst.h"

#include "byte_builder.hpp"
#include "config_line.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "line_reader.hpp"
#include "record_lock.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace karst::config;

namespace {

constexpr int INVENTORY_FILE_MODE = 0644;

// The new value as text: its bytes up to the first zero byte or line end, never more than size
// bytes. A line end would split the entry in two lines.
size_t value_text_length(const char *value, size_t size) {
    size_t n = 0;
    while (n < size && value[n] != '\0' && value[n] != '\n') {
        ++n;
    }
    return n;
}

bool append_entry(ByteBuilder &out, const char *key, const char *value) {
    return out.append(key) && out.append("=", 1) && out.append(value) && out.append("\n", 1);
}

bool write_all(int fd, const char *data, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t done = ::pwrite(fd, data, size, offset);
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            return false;
        }
        data += done;
        size -= static_cast<size_t>(done);
        offset += done;
    }
    return true;
}

} // namespace

extern "C" int read_config(const char *path, const char *key, char *out, uint32_t out_size) try {
    if (path == nullptr || key == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> in_process(process_file_mutex());
    karst::Fd fd(karst::fd_open(path, O_RDONLY));
    if (!fd) {
        KARST_NAMED("open %s fail \n", path);
        return -1;
    }
    RecordLock lock;
    if (!lock.acquire(fd.get(), F_RDLCK)) {
        KARST_NAMED_JOINED("%s fcntl lock fail \n", path);
        return -1;
    }

    int result = -1;
    LineReader lines(fd.get());
    config_entry entry;
    while (lines.next()) {
        if (is_entry(scan_line(lines.head(), lines.head_length(), entry)) &&
            std::strcmp(entry.key, key) == 0) {
            if (out != nullptr && out_size > 0) {
                const size_t n = std::min<size_t>(std::strlen(entry.value), out_size - 1);
                std::memcpy(out, entry.value, n);
                out[n] = '\0';
            }
            result = 0;
            break;
        }
    }

    if (!lock.release()) {
        KARST_NAMED_JOINED("%s fcntl unlock fail\n", path);
        return -1;
    }
    return result;
}
KARST_BOUNDARY(-1)

extern "C" int write_config(const char *path, const char *key, const char *value,
                            uint32_t value_size) try {
    if (path == nullptr || key == nullptr) {
        return -1;
    }
    const size_t key_length = std::strlen(key);
    if (!key_fits(key, key_length)) {
        return -1; // no line could hold this key, or give it back
    }
    if (value == nullptr || value_size == 0) {
        value = "";
        value_size = 1;
    }
    // The new value as a terminated text; a copy only when the caller's bytes do not end there.
    const size_t value_length = value_text_length(value, value_size);
    karst::HeapBuffer value_copy;
    if (value_length == value_size || value[value_length] != '\0') {
        if (!value_copy.allocate(value_length + 1)) {
            KARST_NAMED("out of memory \n");
            return -1;
        }
        std::memcpy(value_copy.data(), value, value_length);
        value_copy.chars()[value_length] = '\0';
        value = value_copy.chars();
    }
    const int capacity = static_cast<int>(std::min<uint32_t>(value_size, VALUE_FIELD));

    std::lock_guard<std::mutex> in_process(process_file_mutex());
    karst::Fd fd(karst::fd_open(path, O_RDWR));
    if (!fd) {
        // The first call only creates the file; the entry comes with the next one.
        karst::Fd created(karst::fd_open(path, O_RDWR | O_CREAT, INVENTORY_FILE_MODE));
        if (!created) {
            KARST_NAMED("open fail \n");
        }
        return -1;
    }
    RecordLock lock;
    if (!lock.acquire(fd.get(), F_WRLCK)) {
        KARST_NAMED_JOINED("fcntl lock fail \n");
        return -1;
    }

    // Entries from the first match on are kept, as they will be written back, in `rewrite`.
    // Should that fail for want of memory, the file is left as it is: no entry is ever dropped.
    bool found = false;
    bool changed = false;
    off_t rewrite_at = 0;
    // What the entry line before rewrite_at lacks to end as it scans: nothing, its line end, or
    // (for a key that runs to the end of an unended line) "=" and the line end, so that the key
    // does not take the line end in.
    const char *completion = "";
    ByteBuilder rewrite;
    LineReader lines(fd.get());
    config_entry entry;
    while (lines.next()) {
        const int count = scan_line(lines.head(), lines.head_length(), entry);
        if (!is_entry(count)) {
            continue;
        }
        if (std::strcmp(entry.key, key) == 0) {
            changed = changed || count == 1 || std::strcmp(entry.value, value) != 0;
            xstrcpy(entry.value, value, capacity);
            found = true;
        }
        if (!found) {
            rewrite_at = lines.end_offset();
            const bool key_to_end =
                count == 1 && std::strlen(entry.key) == strnlen(lines.head(), lines.head_length());
            completion = lines.ended() ? "" : key_to_end ? "=\n" : "\n";
        } else if (!append_entry(rewrite, entry.key, entry.value)) {
            KARST_NAMED("out of memory \n");
            return -1;
        }
    }
    if (lines.failed()) {
        KARST_NAMED("read %s fail \n", path);
        return -1;
    }

    bool written = true;
    if (!found && key_length > 0) {
        // Appended after the last entry line, completing that line if it has no line end.
        ByteBuilder line;
        const bool ok = line.append(completion) && line.append(key, key_length) &&
                        line.append("=", 1) && line.append(value, value_length) &&
                        line.append("\n", 1);
        if (!ok) {
            KARST_NAMED("out of memory \n");
            return -1;
        }
        written = write_all(fd.get(), line.data(), line.size(), rewrite_at);
    } else if (changed) {
        // Written over the old stretch and then cut to its end: the same result as cutting
        // first, and an interrupted write never leaves the file shorter than its entries.
        written = write_all(fd.get(), rewrite.data(), rewrite.size(), rewrite_at) &&
                  ::ftruncate(fd.get(), rewrite_at + static_cast<off_t>(rewrite.size())) == 0;
    }
    if (!written) {
        KARST_NAMED("write %s fail \n", path);
    }

    if (!lock.release()) {
        KARST_NAMED_JOINED("fcntl unlock fail\n");
        return -1;
    }
    return written ? 0 : -1;
}
KARST_BOUNDARY(-1)
