// SPDX-License-Identifier: Apache-2.0
// Import of a firmware inventory file (key=value lines written by another component) into the
// secure world's inventory: a key is written only when the secure world holds another value.
#include "karst.h"

#include "config_line.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "line_reader.hpp"
#include "record_lock.hpp"

#include <cstring>
#include <fcntl.h>

using namespace karst::config;

namespace {

constexpr size_t FW_INVT_FIELD = 64;
constexpr const char *IMPORT = "pta20_import_fw_invt_tavo"; // the name in the import's messages

// One entry of the file, written to the secure world unless it holds that value already.
void import_entry(const config_entry &entry) {
    char file_value[FW_INVT_FIELD] = {};
    char pta_value[FW_INVT_FIELD] = {};
    std::memcpy(file_value, entry.value, strnlen(entry.value, FW_INVT_FIELD - 1));
    // A failed read leaves the secure world's value all zero: the file's value is then
    // written, unless it is empty too.
    _pta_invoke_inventory_get(entry.key, pta_value, FW_INVT_FIELD);
    if (std::memcmp(file_value, pta_value, FW_INVT_FIELD) == 0) {
        KARST_PRINT("datablk and file FW invt value of key: %s are the same.\n", entry.key);
        return;
    }
    // A failed write is reported by the command; the import goes on with the next entry.
    _pta_invoke_inventory_set(entry.key, file_value,
                              static_cast<uint32_t>(std::strlen(file_value) + 1));
}

// The entries of the open, locked file, imported in a session of their own; the file is unlocked
// and closed before the session. -1 when the session cannot be opened (the caller's lock and
// file go on the way out), reading stops on an error, or the unlock fails.
int import_locked(karst::Fd &fd, RecordLock &lock, const char *path) {
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    LineReader lines(fd.get());
    config_entry entry;
    while (lines.next()) {
        if (is_entry(scan_line(lines.head(), lines.head_length(), entry))) {
            import_entry(entry);
        }
    }
    const bool whole = !lines.failed();
    if (!whole) {
        KARST_NAMED_AS(IMPORT, "read %s fail \n", path);
    }
    const bool unlocked = lock.release();
    if (!unlocked) {
        KARST_NAMED_JOINED_AS(IMPORT, "%s fcntl unlock fail\n", path);
    }
    fd.reset();
    return whole && unlocked ? 0 : -1;
}

} // namespace

extern "C" int pta20_import_fw_invt_tavo(const char *path) try {
    if (path == nullptr) {
        KARST_NAMED("open %s fail \n", "(null)");
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
    return import_locked(fd, lock, path);
} catch (...) {
    return KARST_CAUGHT(-1);
}
