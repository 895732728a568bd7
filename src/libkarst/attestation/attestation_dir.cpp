// SPDX-License-Identifier: Apache-2.0
#include "attestation_dir.hpp"

#include "core/board_paths.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

namespace karst::att {
namespace {

board::Opened made(board::Opened dir, log::Site site) {
    if (dir.found != board::Found::ok && dir.found != board::Found::refused) {
        KARST_E_AT(site, "Failed to create path (%s)\n",
                   platform_path(paths::ATTESTATION_DIR).c_str());
    }
    return dir;
}

} // namespace

board::Opened attestation_dir(log::Site site) {
    return made(board::make_directory(paths::ATTESTATION_DIR, site), site);
}

board::Opened fresh_attestation_dir(log::Site site) {
    board::Opened dir = board::open_directory(paths::ATTESTATION_DIR, site);
    if (dir.found == board::Found::ok) {
        // Checked just now: a real directory that only its owner (root or this user) can
        // change, so the command empties what it should and nothing else.
        // Its status is not examined: a file it could not remove stays beside the result.
        shell::run("rm -rf " + shell::quote(platform_path(paths::ATTESTATION_DIR)) + "/*");
        return dir;
    }
    if (dir.found != board::Found::missing) {
        return made(std::move(dir), site);
    }
    return made(board::make_directory(paths::ATTESTATION_DIR, site), site);
}

} // namespace karst::att
