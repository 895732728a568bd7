// SPDX-License-Identifier: Apache-2.0
// The stand-in for the board's REE data tool, written into a run root by the set-up helper.
#pragma once

#include <string>

namespace karst::emu {

// Writes <base>/usr/bin/reedata_tool.sh (mode 0755). False when it cannot be written.
bool install_reedata_tool(const std::string &base);

} // namespace karst::emu
