// SPDX-License-Identifier: Apache-2.0
// Runs karstctl as a process (through the cross-compiling emulator when the tests run under
// one), with its standard output and error kept in files of the test's run root, and the
// emulator's journal telling whether it reached the secure world.
#pragma once

#include <string>
#include <vector>

namespace karst::test {

struct ToolRun {
    int status = -1; // exit status, or -1 when the process did not exit
    std::string out;
    std::string err;
    bool reached = false; // a command was invoked in the secure world
};

ToolRun run_karstctl(const std::string &root, const std::vector<std::string> &args);

// In a child process: replaces it with karstctl and args (exit status 127 when that fails).
[[noreturn]] void exec_karstctl(const std::vector<std::string> &args);

// Waits until the update of the BIOS's staging image that a karstctl process runs has ended and
// that process has let the session go: states, with a bound no machine should reach.
bool bios_update_ends();

} // namespace karst::test
