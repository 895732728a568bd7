// Shell words: whatever a quoted word holds reaches the command as one literal argument, and
// nothing in it runs.
#include "core/shell.hpp"
#include "support/test_env.hpp"

#include <sys/stat.h>

using namespace karst::test;

namespace {

class ShellTest : public KarstTest {};

TEST_F(ShellTest, QuotedWordsArriveLiterallyAndRunNothing) {
    const std::string canary = path("/tmp/canary");
    const std::string hostile[] = {
        "plain",
        "two words",
        "semi;touch " + canary,
        "$(touch " + canary + ")",
        "`touch " + canary + "`",
        "quote ' inside",
        "double \" quote",
        "new\nline;touch " + canary,
        "../../etc/passwd",
        "back\\slash",
        "",
        "'",
        "*",
    };
    for (const std::string &word : hostile) {
        const std::string out = path("/tmp/out");
        const std::string cmd =
            "printf '%s' " + karst::shell::quote(word) + " > " + karst::shell::quote(out);
        karst::shell::run(cmd);
        EXPECT_EQ(read_file(out), word);
        struct stat st {};
        EXPECT_NE(stat(canary.c_str(), &st), 0) << "the word ran a command: " << word;
    }
}

} // namespace
