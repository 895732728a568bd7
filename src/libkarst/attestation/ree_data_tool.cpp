// SPDX-License-Identifier: Apache-2.0
#include "ree_data_tool.hpp"

#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

namespace karst::att {

namespace {

// The tool runs as root: only a program of root's (or this user's) that no one else can
// change. A missing tool is run all the same: the shell reports it, and no archive results.
bool run_tool(const std::string &arguments, log::Site site) {
    if (!board::program_ok(paths::REE_DATA_TOOL, site)) {
        return false;
    }
    shell::run(shell::quote(platform_path(paths::REE_DATA_TOOL)) + " " + arguments);
    return true;
}

} // namespace

bool ree_data_tool_make(const char *nonce, log::Site site) {
    return run_tool("1 " + shell::quote(nonce), site);
}

void ree_data_tool_clean(log::Site site) {
    run_tool("2", site);
}

} // namespace karst::att
