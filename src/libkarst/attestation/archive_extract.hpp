// SPDX-License-Identifier: Apache-2.0
// Extraction of an RA archive into "/tmp/attestation", as root: the archive's members are
// checked first (archive_members.hpp); tar then runs only when the change of directory worked,
// without restoring the archive's owners ("-o", which GNU and BusyBox tar both take).
#pragma once

#include "core/board_files.hpp"
#include "core/log.hpp"

#include <string>

namespace karst::att {

// A caller's archive, used as given: opened without blocking on a FIFO; anything but a regular
// file is refused (one line).
board::Opened open_caller_archive(const std::string &path);

// Checks the members of the open archive and extracts the archive at path. False, with one
// line reported at site, when a member is refused.
bool extract_archive(const Fd &archive, const std::string &path, log::Site site);

} // namespace karst::att
