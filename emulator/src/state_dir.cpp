// SPDX-License-Identifier: Apache-2.0
#include "state_dir.hpp"

#include "emmc.hpp"

#include "karst_emu.h"
#include "reedata_tool_install.hpp"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

namespace karst::emu {
namespace {

// Directories are made as mkdir -p makes them: all permissions, less the umask.
constexpr mode_t DIRECTORY_MODE = 0777;
// The run root's /tmp, as on a board: every user may make files in it, and only remove their
// own (sticky, all permissions).
constexpr mode_t SHARED_TMP_MODE = 01777;

} // namespace

std::string run_root() {
    const char *root = std::getenv("KARST_ROOT");
    std::string prefix = root != nullptr ? root : "";
    while (!prefix.empty() && prefix.back() == '/') {
        prefix.pop_back();
    }
    return prefix;
}

bool make_dirs(const std::string &path) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') {
            const std::string part = path.substr(0, pos);
            if (::mkdir(part.c_str(), DIRECTORY_MODE) != 0 && errno != EEXIST) {
                return false;
            }
        }
    }
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string state_dir() {
    std::string dir = run_root() + "/var/lib/karst-emulator";
    return make_dirs(dir) ? dir : std::string();
}

} // namespace karst::emu

extern "C" int karst_emu_setup(const char *root) {
    if (root == nullptr) {
        return -1;
    }
    std::string base(root);
    while (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    for (const char *dir :
         {"/nv1", "/tmp", "/etc/defaults", "/dev", "/usr/bin", "/var/lib/karst-emulator"}) {
        if (!karst::emu::make_dirs(base + dir)) {
            return -1;
        }
    }
    if (::chmod((base + "/tmp").c_str(), karst::emu::SHARED_TMP_MODE) != 0) {
        return -1;
    }
    if (!karst::emu::install_reedata_tool(base)) {
        return -1;
    }
    return karst::emu::create_emmc(base) ? 0 : -1;
}
