// SPDX-License-Identifier: Apache-2.0
// Shell words: whatever a quoted word holds reaches the command as one literal argument, and
// nothing in it runs.
#include "core/shell.hpp"
#include "support/test_env.hpp"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

using namespace karst::test;
using karst::shell::quote;

namespace {

class ShellTest : public KarstTest {};

TEST_F(ShellTest, QuotedWordsArriveLiterallyAndRunNothing) {
    const std::string canary = path("/tmp/canary"), out = path("/tmp/out");
    for (const std::string &word : std::vector<std::string>{
             "plain", "two words", "semi;touch " + canary, "$(touch " + canary + ")",
             "`touch " + canary + "`", "quote ' inside", "double \" quote",
             "new\nline;touch " + canary, "../../etc/passwd", "back\\slash", "", "'", "*"}) {
        karst::shell::run("printf '%s' " + quote(word) + " > " + quote(out));
        EXPECT_EQ(read_file(out), word);
        EXPECT_FALSE(std::filesystem::exists(canary)) << "the word ran a command: " << word;
    }
}

// A command inherits standard input, output and error only (not the library's files, nor a TEE
// device the client library opened without close-on-exec), and running it leaves the process's
// signal handling alone: a SIGINT sent by the command reaches the caller's handler.
volatile sig_atomic_t interrupts = 0;

TEST_F(ShellTest, CommandsInheritNoDescriptorAndTouchNoSignalHandling) {
    const int inherited = open("/dev/null", O_RDONLY); // no close-on-exec
    ASSERT_GE(inherited, 3);
    struct sigaction handler {
    }, previous{};
    handler.sa_handler = [](int) { interrupts = interrupts + 1; };
    ASSERT_EQ(sigaction(SIGINT, &handler, &previous), 0);
    const std::string listing = path("/tmp/fds");
    karst::shell::run("ls /proc/self/fd > " + quote(listing) + "; kill -INT $PPID");
    EXPECT_EQ(read_file(listing), "0\n1\n2\n3\n") << "3 is the listing's own";
    EXPECT_EQ(interrupts, 1);
    sigaction(SIGINT, &previous, nullptr);
    close(inherited);
}

} // namespace
