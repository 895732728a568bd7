// SPDX-License-Identifier: Apache-2.0
// The one place that decides whether a file or directory at one of the system's own fixed paths
// (a board path such as "/tmp/datablk.bin") may be used, and opens it so that what was checked
// is what is used. The library runs as root beside users who may plant links, FIFOs and files
// wherever they can write (/tmp above all); the rules (docs/security.md):
//
// - Every directory on the way, from the run root down, is opened without following links and
//   must be a real directory owned by the effective user or by root. It may be writable by group
//   or others only when it is sticky (as /tmp is): its entries are then checked by owner. A
//   directory the library uses as a whole (lists, empties, extracts into) must not be writable
//   by group or others at all.
// - A file is opened without following links and without blocking on a FIFO, then checked from
//   the open descriptor: a regular file (or, where asked, a block device) owned by the effective
//   user or by root.
// - A file the library creates fresh is created exclusively after what was there is removed.
//
// A refusal prints one line, at the calling routine's site, naming the path and the reason; the
// routine then reports nothing more for it. A missing file, or any other failure, prints
// nothing: the routine reports it as it always has. Paths that callers pass in never come here:
// they are used as given.
#pragma once

#include "file_handle.hpp"
#include "log.hpp"

#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace karst::board {

// The mode of files the library creates, as fopen would create them; the umask applies.
constexpr mode_t NEW_FILE_MODE = 0666;
// The mode of files that hold secrets (key material).
constexpr mode_t SECRET_FILE_MODE = 0600;

enum class Found {
    ok,      // open, and it passed its check
    missing, // nothing at the path (or a directory on the way is missing)
    refused, // something is there that must not be used; one line printed
    failed,  // the open failed otherwise (errno tells); nothing printed
};

// An open file or directory of a board path, with how the open went.
struct Opened {
    Fd fd;
    Found found = Found::failed;

    explicit operator bool() const { return found == Found::ok; }
    int get() const { return fd.get(); }
    // Whether the failure was already reported (a refusal).
    bool reported() const { return found == Found::refused; }
};

// A stdio stream of a board path, with how the open went.
struct Stream {
    File file;
    Found found = Found::failed;

    explicit operator bool() const { return found == Found::ok; }
    std::FILE *get() const { return file.get(); }
    bool reported() const { return found == Found::refused; }
};

// What a file must be besides being owned by the effective user or root: a regular file, or a
// regular file or block device (the eMMC and its partition).
enum class Kind { regular, regular_or_device };

// An existing file, opened with flags (O_RDONLY or O_RDWR, plus O_TRUNC where wanted).
Opened open_file(std::string_view board_path, int flags, log::Site site, Kind kind = Kind::regular);
// A fresh file: whatever is at the path is removed, then the file is created exclusively with
// mode (the umask applies) and opened with flags (O_WRONLY or O_RDWR).
Opened create_file(std::string_view board_path, mode_t mode, int flags, log::Site site);
// The same as a stdio stream for writing ("w", "wb", "w+"), with NEW_FILE_MODE.
Stream create_stream(std::string_view board_path, const char *mode, log::Site site);
// Replaces the file at board_path with a copy of what source_fd holds from its start: the copy
// is written to a fresh file beside it and renamed over it, so a failed copy never replaces a
// good file. Found::ok when the copy is in place.
Found copy_into(std::string_view board_path, int source_fd, log::Site site);
// Whether the program at board_path may be run: false (with its refusal printed) when something
// is there that is not a regular file of root's or this user's, or that group or others can
// write. A missing program is no refusal. A check, not an acquisition: nothing stays open.
bool program_ok(std::string_view board_path, log::Site site);
// A directory the library uses as a whole.
Opened open_directory(std::string_view board_dir, log::Site site);
// The same, made with mode 0777 (the umask applies) when it is missing. A directory made here
// that the umask left writable by group or others loses those write bits.
Opened make_directory(std::string_view board_dir, log::Site site);

// The checks themselves, on what fstat found: null when it may be used, else the reason.
const char *directory_problem(const struct stat &st, uid_t euid, bool whole);
const char *file_problem(const struct stat &st, uid_t euid, Kind kind);

// A fresh file at a path a caller gave (used as given): what is there is removed and the file
// created exclusively with mode. For files that will hold secrets, so that no one who could
// open the old file reads the new content.
Fd create_fresh(const char *path, mode_t mode);

} // namespace karst::board
