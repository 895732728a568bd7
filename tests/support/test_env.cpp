// SPDX-License-Identifier: Apache-2.0
#include "support/test_env.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace karst::test {

void KarstTest::SetUp() {
    char templ[] = "/tmp/karst-test-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    root_ = templ;
    ASSERT_EQ(setenv("KARST_ROOT", root_.c_str(), 1), 0);
    ASSERT_EQ(karst_emu_setup(root_.c_str()), 0);
    karst_emu_reset();
    open_fds_ = open_fd_count();
}

void KarstTest::TearDown() {
    karst_emu_stats stats{};
    karst_emu_get_stats(&stats);
    EXPECT_EQ(stats.contexts, 0u) << "a TEE context was left initialised";
    EXPECT_EQ(stats.sessions, 0u) << "a TEE session was left open";
    EXPECT_EQ(stats.registered, 0u) << "shared memory was left registered";
    EXPECT_EQ(open_fd_count(), open_fds_) << "a file descriptor was left open";
    karst_emu_reset();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
}

std::string capture_stdout(const std::function<void()> &fn) {
    std::fflush(stdout);
    ::testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

std::vector<karst_emu_invoke_record> journal() {
    std::vector<karst_emu_invoke_record> records(karst_emu_journal_count());
    for (size_t i = 0; i < records.size(); ++i) {
        karst_emu_journal_get(i, &records[i]);
    }
    return records;
}

int open_fd_count() {
    std::error_code ec;
    const std::filesystem::directory_iterator fds("/proc/self/fd", ec);
    return ec ? -1 : static_cast<int>(std::distance(fds, {}));
}

std::string read_file(const std::string &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

int in_child(const std::function<int()> &fn) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int rc = fn();
        std::fflush(nullptr);
        _exit(rc);
    }
    int status = 0;
    const bool exited = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status);
    return exited ? WEXITSTATUS(status) : -1;
}

// The child opens the session, says whether it holds it ('y') and keeps it until a byte comes
// (or the parent goes away).
SessionHolder::SessionHolder() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        const char ok = pta_open_session() == 0 ? 'y' : 'n';
        char release = 0;
        if (write(ends[1], &ok, 1) == 1 && ok == 'y') {
            (void)!read(ends[1], &release, 1);
            pta_close_session();
        }
        _exit(0);
    }
    close(ends[1]);
    char ok = 0;
    holding_ = pid_ > 0 && read(ends[0], &ok, 1) == 1 && ok == 'y';
    to_child_ = ends[0];
}

void SessionHolder::release() {
    if (to_child_ >= 0) {
        (void)!send(to_child_, "x", 1, MSG_NOSIGNAL); // not to a child that is gone
        close(to_child_);
    }
    if (pid_ > 0) {
        waitpid(pid_, nullptr, 0);
    }
    pid_ = to_child_ = -1;
    holding_ = false;
}

// The child dies holding the session; it cannot read the release that follows.
void SessionHolder::kill_holder() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
    }
    release();
}

SessionHolder::~SessionHolder() {
    release();
}

} // namespace karst::test
