// SPDX-License-Identifier: Apache-2.0
// The one place where the system's own fixed paths ("/nv1/...", "/tmp/...", "/dev/mmcblk0",
// "/etc/defaults/...", "/usr/bin/reedata_tool.sh") become the paths that are really used.
//
// Board build: the path is used as it is. Host build (against the emulator): the value of the
// environment variable KARST_ROOT, when set, is put in front of it. Paths that callers pass in
// are never given to these functions.
#pragma once

#include <string>
#include <string_view>

namespace karst {

// The prefix in force now: empty on the board, $KARST_ROOT (or empty) on a host build.
std::string run_root();

// The real location of one of the system's fixed paths, formed as on the board.
std::string platform_path(std::string_view board_path);

} // namespace karst
