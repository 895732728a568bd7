// SPDX-License-Identifier: Apache-2.0
#include "archive_path.hpp"

#include "core/shell.hpp"

#include <climits>
#include <unistd.h>

namespace karst::att {

std::string archive_word(const std::string &path) {
    std::string absolute;
    if (!path.empty() && path.front() == '/') {
        absolute = path;
    } else {
        char cwd[PATH_MAX];
        absolute = ::getcwd(cwd, sizeof cwd) != nullptr ? std::string(cwd) : std::string(".");
        absolute += "/";
        absolute += path;
    }
    return shell::quote(absolute);
}

} // namespace karst::att
