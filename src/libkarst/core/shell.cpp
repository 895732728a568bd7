// SPDX-License-Identifier: Apache-2.0
#include "shell.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace karst::shell {

namespace {

// Characters that are never special to the shell anywhere in an argument word.
bool plain_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == ':' || c == '@';
}

} // namespace

std::string quote(std::string_view text) {
    // A word of plain characters stands as it is, so that commands read as on the board.
    bool plain = !text.empty();
    for (char c : text) {
        plain = plain && plain_char(c);
    }
    if (plain) {
        return std::string(text);
    }
    std::string word;
    word.reserve(text.size() + 2);
    word.push_back('\'');
    for (char c : text) {
        if (c == '\'') {
            word.append("'\\''");
        } else {
            word.push_back(c);
        }
    }
    word.push_back('\'');
    return word;
}

namespace {

// The child's status when the shell cannot be run, as a shell answers a command it cannot run.
constexpr int SHELL_NOT_RUN = 127;
// Where the descriptor limit is unknown or higher, the child closes descriptors below this.
constexpr rlim_t DESCRIPTOR_LIMIT = 65536;

// In the child, between fork and exec: only async-signal-safe calls. Every descriptor above
// standard error is closed (the library's files, and the TEE client library's device, which it
// may have opened without close-on-exec), and no signal stays blocked.
[[noreturn]] void exec_shell(const char *command_line, int highest_fd) {
#if defined(SYS_close_range)
    if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
#endif
    {
        for (int fd = 3; fd <= highest_fd; ++fd) {
            ::close(fd);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const char *argv[] = {"sh", "-c", command_line, nullptr};
    ::execve("/bin/sh", const_cast<char *const *>(argv), environ);
    ::_exit(SHELL_NOT_RUN);
}

int highest_descriptor() {
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
        limit.rlim_cur > DESCRIPTOR_LIMIT) {
        return static_cast<int>(DESCRIPTOR_LIMIT) - 1;
    }
    return static_cast<int>(limit.rlim_cur) - 1;
}

} // namespace

int run(const std::string &command_line) {
    // Whatever the library printed so far comes before the command's own output.
    std::fflush(stdout);
    // Unlike system(), nothing here touches the process's signal dispositions or mask: other
    // threads of the caller go on receiving SIGINT, SIGQUIT and SIGCHLD as before.
    const int highest_fd = highest_descriptor();
    const pid_t child = ::fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        exec_shell(command_line.c_str(), highest_fd);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

} // namespace karst::shell
