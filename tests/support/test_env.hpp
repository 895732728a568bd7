// SPDX-License-Identifier: Apache-2.0
// Common ground of the tests: a fresh run root per test, the emulator reset, captured standard
// output, and the check that a test left nothing behind (no context, session, registered
// memory or file descriptor).
#pragma once

#include "karst.h"
#include "karst_emu.h"
#include <tee_client_api.h>

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

namespace karst::test {

class KarstTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The run root of this test, and a path inside it.
    const std::string &root() const { return root_; }
    std::string path(const std::string &inside) const { return root_ + inside; }

  private:
    std::string root_;
    int open_fds_ = 0;
};

// Runs fn with standard output captured and returns what it printed.
std::string capture_stdout(const std::function<void()> &fn);

// The journal's records, in order.
std::vector<karst_emu_invoke_record> journal();

// Number of open file descriptors of this process.
int open_fd_count();

// Reads or writes a whole file.
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &data);

// Whether out matches the regular expression re as a whole.
inline ::testing::AssertionResult matches(const std::string &out, const std::string &re) {
    return std::regex_match(out, std::regex(re))
               ? ::testing::AssertionSuccess()
               : ::testing::AssertionFailure() << "output \"" << out << "\" does not match " << re;
}

// Runs fn in a child process; returns the child's exit status (fn's result), or -1.
int in_child(const std::function<int()> &fn);

// A child process that holds the application's session until release() or destruction.
class SessionHolder {
  public:
    SessionHolder();
    ~SessionHolder();
    bool holding() const { return holding_; }
    void release();     // the child closes its session and exits
    void kill_holder(); // the child dies without closing

  private:
    int pid_ = -1;
    int to_child_ = -1;
    bool holding_ = false;
};

} // namespace karst::test
