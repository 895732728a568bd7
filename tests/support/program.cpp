// SPDX-License-Identifier: Apache-2.0
#include "support/program.hpp"

#include "core/shell.hpp"
#include "test_programs.h"

#include <cstdio>
#include <sstream>
#include <sys/wait.h>

namespace karst::test {

std::string otp_program() {
    return KARST_OTP_PROGRAM;
}

// Through the cross-compiling emulator's command when there is one (a CMake list, "qemu-arm;-L;
// /usr/..."), each word quoted for the shell.
ProgramRun run_program(const std::string &program, const std::vector<std::string> &args) {
    std::istringstream emulator(KARST_TEST_EMULATOR);
    std::string line;
    for (std::string word; std::getline(emulator, word, ';');) {
        line += word.empty() ? "" : karst::shell::quote(word) + " ";
    }
    line += karst::shell::quote(program);
    for (const std::string &arg : args) {
        line += " " + karst::shell::quote(arg);
    }
    ProgramRun run;
    std::fflush(nullptr);
    FILE *out = popen(line.c_str(), "r");
    if (out == nullptr) {
        return run;
    }
    char buf[4096];
    for (size_t n = 0; (n = std::fread(buf, 1, sizeof buf, out)) > 0;) {
        run.output.append(buf, n);
    }
    const int status = pclose(out);
    run.status = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

} // namespace karst::test
