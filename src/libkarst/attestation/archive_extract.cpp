// SPDX-License-Identifier: Apache-2.0
#include "archive_extract.hpp"

#include "attestation/archive_members.hpp"
#include "attestation/archive_path.hpp"
#include "core/board_paths.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

#include <cerrno>
#include <fcntl.h>

namespace karst::att {

board::Opened open_caller_archive(const std::string &path) {
    Fd fd(fd_open(path.c_str(), O_RDONLY | O_NONBLOCK));
    if (!fd) {
        return {Fd(), errno == ENOENT ? board::Found::missing : board::Found::failed};
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        return {Fd(), board::Found::failed};
    }
    if (!S_ISREG(st.st_mode)) {
        KARST_E("Refused %s: not a regular file\n", path.c_str());
        return {Fd(), board::Found::refused};
    }
    return {std::move(fd), board::Found::ok};
}

bool extract_archive(const Fd &archive, const std::string &path, log::Site site) {
    std::string member;
    if (const char *problem = archive_members_problem(archive.get(), member)) {
        KARST_E_AT(site, "Refused archive %s: %s%s%s\n", path.c_str(), problem,
                   member.empty() ? "" : ": ", member.c_str());
        return false;
    }
    // tar's status is not examined: the routine reports the data file it then cannot read.
    shell::run("cd " + shell::quote(platform_path(paths::ATTESTATION_DIR)) + " && tar -zxof " +
               archive_word(path));
    return true;
}

} // namespace karst::att
