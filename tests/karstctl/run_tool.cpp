// SPDX-License-Identifier: Apache-2.0
#include "karstctl/run_tool.hpp"

#include "support/test_env.hpp"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace karst::test {
namespace {

constexpr int EXEC_FAILED = 127;     // the program could not be started
constexpr int REDIRECT_FAILED = 126; // its output files could not be opened

// The command line that starts karstctl: the cross-compiling emulator's words, then the program.
std::vector<std::string> karstctl_command() {
    std::vector<std::string> words;
    const char *const joined = KARST_TEST_CROSS_EMULATOR; // words joined by '|'
    const std::string_view emulator = joined;
    size_t start = 0;
    while (start < emulator.size()) {
        size_t end = emulator.find('|', start);
        if (end == std::string::npos) {
            end = emulator.size();
        }
        if (end > start) {
            words.emplace_back(emulator.substr(start, end - start));
        }
        start = end + 1;
    }
    words.emplace_back(KARST_TEST_KARSTCTL);
    return words;
}

} // namespace

void exec_karstctl(const std::vector<std::string> &args) {
    std::vector<std::string> words = karstctl_command();
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(EXEC_FAILED);
}

ToolRun run_karstctl(const std::string &root, const std::vector<std::string> &args) {
    const std::string out_path = root + "/karstctl.out";
    const std::string err_path = root + "/karstctl.err";
    const std::string journal_path = root + "/karstctl.journal";
    unlink(journal_path.c_str());

    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("KARST_EMU_JOURNAL", journal_path.c_str(), 1);
        const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
            _exit(REDIRECT_FAILED);
        }
        exec_karstctl(args);
    }
    ToolRun run;
    int wstatus = 0;
    if (pid > 0 && waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus)) {
        run.status = WEXITSTATUS(wstatus);
    }
    run.out = read_file(out_path);
    run.err = read_file(err_path);
    run.reached = access(journal_path.c_str(), F_OK) == 0;
    return run;
}

bool bios_update_ends() {
    bool done = false;
    for (auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(5);
         !done && std::chrono::steady_clock::now() < give_up;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        capture_stdout([&] { done = pta_open_session() == 0; }); // it says so while busy
        pta_close_session();
        done = done && pta20_img_updmsg(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), 0) == 100;
    }
    return done;
}

} // namespace karst::test
