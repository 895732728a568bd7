// SPDX-License-Identifier: Apache-2.0
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

// Whether the entry line at head has exactly this key.
bool holds_key(const char *head, const LineFields &fields, const char *key, size_t key_length) {
    return fields.key_length == key_length && std::memcmp(head, key, key_length) == 0;
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
    const size_t key_length = std::strlen(key);
    LineReader lines(fd.get());
    while (lines.next()) {
        const LineFields fields = locate_fields(lines.head(), lines.head_length());
        if (is_entry(fields.count) && holds_key(lines.head(), fields, key, key_length)) {
            if (out != nullptr && out_size > 0) {
                const size_t n = std::min<size_t>(fields.value_length, out_size - 1);
                std::memcpy(out, lines.head() + fields.value_at, n);
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

// The "=" and the line end around an entry's value.
constexpr size_t ENTRY_SEPARATORS = 2;

// The new value as text: its bytes up to the first zero byte or line end, never more than size
// bytes. A line end would split the entry in two lines.
size_t value_text_length(const char *value, size_t size) {
    size_t n = 0;
    while (n < size && value[n] != '\0' && value[n] != '\n') {
        ++n;
    }
    return n;
}

// key, "=", value and the line end: an entry as it is written.
bool append_line(ByteBuilder &out, const char *key, size_t key_length, const char *value,
                 size_t value_length) {
    return out.append(key, key_length) && out.append("=", 1) && out.append(value, value_length) &&
           out.append("\n", 1);
}

// size bytes at offset, resumed after interruptions; false when the file takes no more.
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

// Whether the key's entry line at head already holds the new value.
bool holds_value(const char *head, const LineFields &fields, const NewValue &value) {
    return fields.count == 2 && fields.value_length == value.length &&
           std::memcmp(head + fields.value_at, value.text, value.length) == 0;
}

// An entry line before the first match: the rewrite starts after it, completed by what it lacks
// to end as it scans.
void keep_line(const LineReader &lines, const LineFields &fields, Scan &scan) {
    scan.rewrite_at = lines.end_offset();
    const bool key_to_end =
        fields.count == 1 && fields.key_length == strnlen(lines.head(), lines.head_length());
    scan.completion = lines.ended() ? "" : key_to_end ? "=\n" : "\n";
}

// An entry from the first match on, as it is written back. The key's own lines take the new
// value, cut to the field as xstrcpy cuts it; any other line that already reads key=value with
// its line end is copied as it stands.
bool append_entry(ByteBuilder &out, const LineReader &lines, const LineFields &fields,
                  const NewValue *replacement) {
    const char *head = lines.head();
    if (replacement != nullptr) {
        char cut[VALUE_FIELD];
        xstrcpy(cut, replacement->text, replacement->capacity);
        return append_line(out, head, fields.key_length, cut, std::strlen(cut));
    }
    if (lines.ended() &&
        lines.head_length() == fields.key_length + fields.value_length + ENTRY_SEPARATORS &&
        head[fields.key_length] == '=') {
        return out.append(head, lines.head_length());
    }
    return append_line(out, head, fields.key_length, head + fields.value_at, fields.value_length);
}

// Entries from the first match on are kept, as they will be written back. Should that fail for
// want of memory, the file is left as it is: no entry is ever dropped.
bool scan_entries(int fd, const char *path, const char *key, const NewValue &value, Scan &scan) {
    const size_t key_length = std::strlen(key);
    LineReader lines(fd);
    while (lines.next()) {
        const LineFields fields = locate_fields(lines.head(), lines.head_length());
        if (!is_entry(fields.count)) {
            continue;
        }
        const bool match = holds_key(lines.head(), fields, key, key_length);
        if (match) {
            scan.changed = scan.changed || !holds_value(lines.head(), fields, value);
            scan.found = true;
        }
        if (!scan.found) {
            keep_line(lines, fields, scan);
        } else if (!append_entry(scan.rewrite, lines, fields, match ? &value : nullptr)) {
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
        if (!line.append(scan.completion) ||
            !append_line(line, key, key_length, value.text, value.length)) {
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
