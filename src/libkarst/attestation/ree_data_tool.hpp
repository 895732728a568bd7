// SPDX-License-Identifier: Apache-2.0
// The outside tool "/usr/bin/reedata_tool.sh" that makes the REE (normal-world) data archive
// "/tmp/ReeData.tgz" for a nonce (mode 1) and cleans up after the dump (mode 2). Its exit
// status is not examined: the dump judges mode 1 by the archive it leaves.
// The tool runs only when it passes the board file checks (board::program_ok).
#pragma once

#include "core/log.hpp"

namespace karst::att {

// Runs "<tool> 1 <nonce>". The nonce must already have passed nonce_ok(); it is quoted anyway.
// False when the tool was refused (reported at site).
bool ree_data_tool_make(const char *nonce, log::Site site);
// Runs "<tool> 2".
void ree_data_tool_clean(log::Site site);

} // namespace karst::att
