// The inventory file: key=value lines shared by every process of the controller. read_config
// looks a key up under a read lock; write_config adds or replaces a key under a write lock and
// rewrites only the part of the file from the first changed entry on.
#include "karst.h"

#include "byte_builder.hpp"
#include "config_line.hpp"
#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "inventory_file.hpp"
#include "line_reader.hpp"
#include "record_lock.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace karst;
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

namespace karst::config {

int read_entry(const Fd &fd, const char *path, const char *key, char *out, uint32_t out_size) {
    RecordLock lock;
    if (!lock.acquire(fd.get(), F_RDLCK)) {
        KARST_NAMED_JOINED_AS("read_config", "%s fcntl lock fail \n", path);
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
        KARST_NAMED_JOINED_AS("read_config", "%s fcntl unlock fail\n", path);
        return -1;
    }
    return result;
}

} // namespace karst::config

extern "C" int read_config(const char *path, const char *key, char *out, uint32_t out_size) try {
    if (path == nullptr || key == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> in_process(process_file_mutex());
    const karst::Fd fd(karst::fd_open(path, O_RDONLY));
    if (!fd) {
        KARST_NAMED("open %s fail \n", path);
        return -1;
    }
    return read_entry(fd, path, key, out, out_size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

namespace karst::config {
namespace {

constexpr const char *WRITE = "write_config"; // the name in the messages of an update

// The new value as a terminated text of at most value_size bytes, cut at a zero byte or line
// end; a copy only when the caller's bytes do not end there.
struct NewValue {
    const char *text;
    size_t length;
    int capacity; // the field it is copied into, as xstrcpy takes it
    HeapBuffer copy;
};

bool normalise_value(const char *value, uint32_t value_size, NewValue &out) {
    if (value == nullptr || value_size == 0) {
        value = "";
        value_size = 1;
    }
    out.text = value;
    out.length = value_text_length(value, value_size);
    out.capacity = static_cast<int>(std::min<uint32_t>(value_size, VALUE_FIELD));
    if (out.length == value_size || value[out.length] != '\0') {
        if (!out.copy.allocate(out.length + 1)) {
            KARST_NAMED_AS(WRITE, "out of memory \n");
            return false;
        }
        std::memcpy(out.copy.data(), value, out.length);
        out.copy.chars()[out.length] = '\0';
        out.text = out.copy.chars();
    }
    return true;
}

// Where the file must change, found in one pass: the offset of the first line to rewrite and,
// from the matching entry on, the entries as they will be written back.
struct Scan {
    bool found = false;
    bool changed = false;
    off_t rewrite_at = 0;
    // What the entry line before rewrite_at lacks to end as it scans: nothing, its line end, or
    // (for a key that runs to the end of an unended line) "=" and the line end, so that the key
    // does not take the line end in.
    const char *completion = "";
    ByteBuilder rewrite;
};

// Entries from the first match on are kept, as they will be written back. Should that fail for
// want of memory, the file is left as it is: no entry is ever dropped.
bool scan_entries(int fd, const char *path, const char *key, const NewValue &value, Scan &scan) {
    LineReader lines(fd);
    config_entry entry;
    while (lines.next()) {
        const int count = scan_line(lines.head(), lines.head_length(), entry);
        if (!is_entry(count)) {
            continue;
        }
        if (std::strcmp(entry.key, key) == 0) {
            scan.changed = scan.changed || count == 1 || std::strcmp(entry.value, value.text) != 0;
            xstrcpy(entry.value, value.text, value.capacity);
            scan.found = true;
        }
        if (!scan.found) {
            scan.rewrite_at = lines.end_offset();
            const bool key_to_end =
                count == 1 && std::strlen(entry.key) == strnlen(lines.head(), lines.head_length());
            scan.completion = lines.ended() ? "" : key_to_end ? "=\n" : "\n";
        } else if (!append_entry(scan.rewrite, entry.key, entry.value)) {
            KARST_NAMED_AS(WRITE, "out of memory \n");
            return false;
        }
    }
    if (lines.failed()) {
        KARST_NAMED_AS(WRITE, "read %s fail \n", path);
        return false;
    }
    return true;
}

// Appends a new entry after the last entry line, or rewrites the stretch from the match on.
// -1 for want of memory (nothing written), 0 written, 1 the write failed.
int rewrite(int fd, const char *key, size_t key_length, const NewValue &value, Scan &scan) {
    if (!scan.found && key_length > 0) {
        ByteBuilder line;
        const bool ok = line.append(scan.completion) && line.append(key, key_length) &&
                        line.append("=", 1) && line.append(value.text, value.length) &&
                        line.append("\n", 1);
        if (!ok) {
            KARST_NAMED_AS(WRITE, "out of memory \n");
            return -1;
        }
        return write_all(fd, line.data(), line.size(), scan.rewrite_at) ? 0 : 1;
    }
    if (!scan.changed) {
        return 0;
    }
    // Written over the old stretch and then cut to its end: the same result as cutting first,
    // and an interrupted write never leaves the file shorter than its entries.
    const off_t end = scan.rewrite_at + static_cast<off_t>(scan.rewrite.size());
    return write_all(fd, scan.rewrite.data(), scan.rewrite.size(), scan.rewrite_at) &&
                   ::ftruncate(fd, end) == 0
               ? 0
               : 1;
}

} // namespace

int write_entry(const Fd &fd, const char *path, const char *key, const char *value,
                uint32_t value_size) {
    const size_t key_length = std::strlen(key);
    NewValue new_value;
    if (!normalise_value(value, value_size, new_value)) {
        return -1;
    }
    RecordLock lock;
    if (!lock.acquire(fd.get(), F_WRLCK)) {
        KARST_NAMED_JOINED_AS(WRITE, "fcntl lock fail \n");
        return -1;
    }
    Scan scan;
    if (!scan_entries(fd.get(), path, key, new_value, scan)) {
        return -1;
    }
    const int written = rewrite(fd.get(), key, key_length, new_value, scan);
    if (written < 0) {
        return -1;
    }
    if (written > 0) {
        KARST_NAMED_AS(WRITE, "write %s fail \n", path);
    }
    if (!lock.release()) {
        KARST_NAMED_JOINED_AS(WRITE, "fcntl unlock fail\n");
        return -1;
    }
    return written == 0 ? 0 : -1;
}

int read_inventory_file(const char *key, char *out, uint32_t out_size) {
    std::lock_guard<std::mutex> in_process(process_file_mutex());
    const board::Opened file = board::open_file(paths::INVENTORY, O_RDONLY, KARST_SITE);
    if (!file) {
        if (!file.reported()) {
            KARST_NAMED_AS("read_config", "open %s fail \n",
                           platform_path(paths::INVENTORY).c_str());
        }
        return -1;
    }
    return read_entry(file.fd, platform_path(paths::INVENTORY).c_str(), key, out, out_size);
}

int write_inventory_file(const char *key, const char *value, uint32_t value_size) {
    if (!key_fits(key, std::strlen(key))) {
        return -1;
    }
    std::lock_guard<std::mutex> in_process(process_file_mutex());
    const board::Opened file = board::open_file(paths::INVENTORY, O_RDWR, KARST_SITE);
    if (file.found == board::Found::missing) {
        // The first write only creates the file; the entry comes with the next one.
        const board::Opened created =
            board::create_file(paths::INVENTORY, INVENTORY_FILE_MODE, O_RDWR, KARST_SITE);
        if (!created && !created.reported()) {
            KARST_NAMED_AS(WRITE, "open fail \n");
        }
        return -1;
    }
    if (!file) {
        if (!file.reported()) {
            KARST_NAMED_AS(WRITE, "open fail \n");
        }
        return -1;
    }
    return write_entry(file.fd, platform_path(paths::INVENTORY).c_str(), key, value, value_size);
}

} // namespace karst::config

extern "C" int write_config(const char *path, const char *key, const char *value,
                            uint32_t value_size) try {
    if (path == nullptr || key == nullptr) {
        return -1;
    }
    if (!key_fits(key, std::strlen(key))) {
        return -1; // no line could hold this key, or give it back
    }
    std::lock_guard<std::mutex> in_process(process_file_mutex());
    const karst::Fd fd(karst::fd_open(path, O_RDWR));
    if (!fd) {
        // The first call only creates the file; the entry comes with the next one.
        const karst::Fd created(karst::fd_open(path, O_RDWR | O_CREAT, INVENTORY_FILE_MODE));
        if (!created) {
            KARST_NAMED("open fail \n");
        }
        return -1;
    }
    return write_entry(fd, path, key, value, value_size);
} catch (...) {
    return KARST_CAUGHT(-1);
}
