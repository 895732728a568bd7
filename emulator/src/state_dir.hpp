// SPDX-License-Identifier: Apache-2.0
// Where the emulator keeps the application's state: under the same run root as the library.
#pragma once

#include <string>

namespace karst::emu {

// $KARST_ROOT (trailing slashes removed), or empty.
std::string run_root();
// The state directory, created if missing; empty when it cannot be created.
std::string state_dir();
// mkdir -p; true when the directory exists afterwards.
bool make_dirs(const std::string &path);

} // namespace karst::emu
