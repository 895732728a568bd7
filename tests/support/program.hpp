// SPDX-License-Identifier: Apache-2.0
// Runs one of the project's programs as a process of its own, through the cross-compiling
// emulator when the build has one (a 32-bit ARM program cannot be started directly on the host).
#pragma once

#include <string>
#include <vector>

namespace karst::test {

struct ProgramRun {
    int status = -1;    // exit status, -1 when the program did not exit normally
    std::string output; // what it wrote to standard output
};

// Where the build put the otp program.
std::string otp_program();

// program: the program's path; args: its arguments (its own name is added).
ProgramRun run_program(const std::string &program, const std::vector<std::string> &args);

} // namespace karst::test
