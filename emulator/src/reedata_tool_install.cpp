// SPDX-License-Identifier: Apache-2.0
#include "reedata_tool_install.hpp"

#include "reedata_tool_script.hpp"

#include <cstdio>
#include <sys/stat.h>

namespace karst::emu {
namespace {

constexpr mode_t TOOL_MODE = 0755;

} // namespace

bool install_reedata_tool(const std::string &base) {
    const std::string path = base + "/usr/bin/reedata_tool.sh";
    std::FILE *f = std::fopen(path.c_str(), "we");
    if (f == nullptr) {
        return false;
    }
    const size_t n = sizeof REEDATA_TOOL_SCRIPT - 1;
    const bool written = std::fwrite(REEDATA_TOOL_SCRIPT, 1, n, f) == n;
    return (std::fclose(f) == 0) && written && ::chmod(path.c_str(), TOOL_MODE) == 0;
}

} // namespace karst::emu
