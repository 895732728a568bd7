#include "support/program.hpp"

#include "test_programs.h"

#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace karst::test {
namespace {

// The cross-compiling emulator's command, a CMake list ("qemu-arm;-L;/usr/...").
std::vector<std::string> emulator_command() {
    std::vector<std::string> words;
    const std::string list = KARST_TEST_EMULATOR;
    size_t pos = 0;
    while (pos < list.size()) {
        size_t end = list.find(';', pos);
        if (end == std::string::npos) {
            end = list.size();
        }
        if (end > pos) {
            words.push_back(list.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    return words;
}

} // namespace

std::string otp_program() {
    return KARST_OTP_PROGRAM;
}

ProgramRun run_program(const std::string &program, const std::vector<std::string> &args) {
    std::vector<std::string> words = emulator_command();
    words.push_back(program);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);

    ProgramRun run;
    int out[2];
    if (pipe(out) != 0) {
        return run;
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    char buf[4096];
    ssize_t n = 0;
    while ((n = read(out[0], buf, sizeof buf)) > 0) {
        run.output.append(buf, static_cast<size_t>(n));
    }
    close(out[0]);
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    }
    return run;
}

} // namespace karst::test
