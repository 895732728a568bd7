// SPDX-License-Identifier: Apache-2.0
// Opening an evidence directory, and the file name rules of the evidence directories.
#pragma once

#include "core/board_files.hpp"
#include "core/file_handle.hpp"

#include <string>
#include <string_view>
#include <unistd.h>

namespace karst::att {

// The listing of the directory at a board path, when it passes the checks of board_files.hpp
// (found tells how the open went; a refusal has printed its line at site).
inline Directory open_directory(std::string_view board_dir, log::Site site, board::Found &found) {
    board::Opened dir = board::open_directory(board_dir, site);
    found = dir.found;
    if (!dir) {
        return Directory();
    }
    DIR *listing = ::fdopendir(dir.fd.get());
    if (listing != nullptr) {
        dir.fd.release();
    }
    return Directory(listing);
}

// Whether the entry of the open listing is a plain file (not evidence of a subdirectory).
inline bool plain_file(DIR *listing, const char *name) {
    struct stat st {};
    return ::fstatat(::dirfd(listing), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
}

// Hidden entries (".", ".." and names beginning with '.') are never evidence.
inline bool hidden(std::string_view name) {
    return !name.empty() && name.front() == '.';
}

// True when the name's extension (from its last '.') is exactly extension; key receives the
// name cut at that '.'.
inline bool has_extension(std::string_view name, std::string_view extension, std::string &key) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || name.substr(dot) != extension) {
        return false;
    }
    key.assign(name.substr(0, dot));
    return true;
}

} // namespace karst::att
