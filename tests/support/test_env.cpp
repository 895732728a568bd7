#include "support/test_env.hpp"

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sstream>
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
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
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
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

SessionHolder::SessionHolder() {
    int to_child[2], to_parent[2];
    if (pipe(to_child) != 0 || pipe(to_parent) != 0) {
        return;
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        close(to_child[1]);
        close(to_parent[0]);
        const char ok = pta_open_session() == 0 ? 'y' : 'n';
        (void)!write(to_parent[1], &ok, 1);
        char cmd = 0;
        (void)!read(to_child[0], &cmd, 1); // release, or the parent went away
        if (ok == 'y') {
            pta_close_session();
        }
        _exit(0);
    }
    close(to_child[0]);
    close(to_parent[1]);
    char ok = 0;
    holding_ = pid_ > 0 && read(to_parent[0], &ok, 1) == 1 && ok == 'y';
    close(to_parent[0]);
    to_child_ = to_child[1];
}

void SessionHolder::release() {
    if (to_child_ >= 0) {
        (void)!write(to_child_, "x", 1);
        close(to_child_);
        to_child_ = -1;
    }
    if (pid_ > 0) {
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    holding_ = false;
}

void SessionHolder::kill_holder() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    if (to_child_ >= 0) {
        close(to_child_);
        to_child_ = -1;
    }
    holding_ = false;
}

SessionHolder::~SessionHolder() {
    release();
}

} // namespace karst::test
