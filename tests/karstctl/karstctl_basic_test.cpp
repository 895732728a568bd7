// SPDX-License-Identifier: Apache-2.0
// karstctl run as a process: its arguments, exit statuses and outputs in one table, help and
// completion, and the update's progress.
#include "karstctl/run_tool.hpp"
#include "support/test_env.hpp"

#include <chrono>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace karst::test {
namespace {

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// A run of karstctl: its exit status, its whole standard output, a part of its standard error
// and whether it reached the secure world.
struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
    bool reached;
};

class KarstctlTest : public KarstTest {
  protected:
    ToolRun run(const std::vector<std::string> &args) { return run_karstctl(root(), args); }
    void check(const std::vector<Case> &cases) {
        for (const Case &c : cases) {
            const ToolRun r = run(c.args);
            const std::string what = c.args.empty() ? "" : c.args[0] + " " + c.args.back();
            EXPECT_EQ(r.status, c.status) << what << ": " << r.err;
            EXPECT_EQ(r.out, c.out) << what;
            EXPECT_TRUE(has(r.err, c.err)) << what << ": " << r.err;
            EXPECT_EQ(r.reached, c.reached) << what;
        }
    }
};

TEST_F(KarstctlTest, OperandsAreCheckedBeforeTheSecureWorld) {
    write_file(path("/x"), "bios");
    check({
        {{}, 2, "", "a command is needed; commands: env, inventory,", false},
        {{"frob"}, 2, "", "unknown command 'frob'; commands: env, inventory,", false},
        {{"env", "gett", "bootcmd"}, 2, "", "unknown env command 'gett'; one of: get, set", false},
        {{"env", "get", "bootcmd", "--bogus"}, 2, "", "--bogus", false},
        {{"memreg", "zz"}, 2, "", "not a 32-bit hexadecimal address", false},
        {{"memreg", "1f1"}, 2, "", "a multiple of 4", false},
        {{"memreg", "1f0", "65"}, 2, "", "out of range 0x01 to 0x40", false},
        {{"cpld", "read", "zz"}, 2, "", "not a number", false},
        {{"cpld", "read", "0x100"}, 2, "", "out of range 0x00 to 0xff", false},
        {{"cpld", "write", "0x21", "hello"}, 2, "", "not a number", false},
        {{"cpld", "write", "0x21", "0x1ff"}, 2, "", "out of range", false},
        {{"otp", "getkey", "0x20"}, 2, "", "out of range 0x00 to 0x1f", false},
        {{"otp", "prog-usr", "2000", "--hex", "5a"}, 2, "", "out of range 0x00 to 0x3ff", false},
        {{"otp", "prog-usr", "1023", "--hex", "5aa5"}, 2, "", "do not fit the 1,024-byte", false},
        {{"otp", "prog-usr", "0x20", "--hex", "5g"}, 2, "", "not hexadecimal", false},
        {{"cert", "get", "3", "-o", "x"}, 2, "", "'3' is not a certificate", false},
        {{"cert", "get", "root", "-o", "/no/such/x"}, 2, "", "cannot write /no/such/x", false},
        {{"image", "auth", "toaster"}, 2, "", "one of: bmc, bios, cpld,", false},
        {{"image", "auth", "bios", "--file", "/no/such"}, 2, "", "/no/such", false},
        {{"image", "update", "bmc", "active", "--async"}, 2, "", "no progress for bmc", false},
        {{"image", "update", "bios", "--file", path("/x")}, 2, "", "with --file; slots", false},
        {{"image", "delete", "bios", "golden"}, 2, "", "slots it can use: staging, backup", false},
        {{"image", "dump", "bios", "backup", "-o", "/no/such/x"}, 2, "", "cannot write", false},
        {{"image", "progress", "bmc"}, 2, "", "no progress for bmc", false},
        {{"image", "progress", "bios"}, 1, "", "no progress for bios", false},
        {{"inventory", "set", "LONG", std::string(4096, 'x')}, 2, "", "at most 4095 bytes", false},
        {{"env", "set", "LONG", std::string(32768, 'x')}, 2, "", "at most 32767 bytes", false},
    });
}

TEST_F(KarstctlTest, ResultsAloneOnStandardOutput) {
    const std::string value(4095, 'v');
    const std::string registers = R"({"registers":[{"address":496,"value":1589698544}]})"
                                  "\n";
    const std::string answer = R"({"query":1,"answer":"yes"})"
                               "\n";
    const std::string missing =
        "pta20_ubootenv_get failed: TEEC_InvokeCommand: "
        "TEEC_ERROR_ITEM_NOT_FOUND (0xffff0008) from TEEC_ORIGIN_TRUSTED_APP";
    check({
        {{"env", "get", "nosuch"}, 1, "", missing, true},
        {{"env", "set", "bootdelay", "7"}, 0, "", "", true},
        {{"env", "get", "bootdelay"}, 0, "7\n", "", true},
        {{"env", "get", "bootcmd", "-o", "-"}, 0, "bootm 20080000", "", true},
        {{"inventory", "set", "BIOS_VERSION", "Rev 1.2a"}, 0, "", "", true},
        {{"inventory", "get", "BIOS_VERSION"}, 0, "Ver 1.2a\n", "'Rev' is detected", true},
        {{"inventory", "set", "LONG", value}, 0, "", "", true},
        {{"inventory", "get", "LONG"}, 0, value + "\n", "", true},
        {{"memreg", "0x1f0", "2"}, 0, "000001f0 5ec0dff0\n000001f4 5ec0dff4\n", "[000001f4]", true},
        {{"memreg", "1f0", "--json"}, 0, registers, "", true},
        {{"cpld", "write", "33", "0x5a"}, 0, "", "Write cpld reg[21] = 5a", true},
        {{"cpld", "read", "0x21"}, 0, "0x5a\n", "Read CPLD Reg[21] = 5A", true},
        {{"attest", "prov-query", "1", "--json"}, 0, answer, "", true},
        {{"attest", "prov-query", "3"}, 1, "no\n", "", true},
        {{"attest", "dump", "bad nonce"}, 1, "", "pta20_att_dump failed (-1)", false},
    });
}

TEST_F(KarstctlTest, HelpVersionAndCompletion) {
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"--help"}, {"env", "get", "--help"}, {"image", "update", "--help"}}) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(has(r.out, "Examples:")) << r.out;
        EXPECT_TRUE(has(r.out, "Exit status: 0 success; 1 the call failed")) << r.out;
        EXPECT_EQ(has(r.out, "3 stopped waiting"), args[0] != "env") << r.out;
    }
    EXPECT_EQ(run({"--version"}).out, "karstctl 1.0.0\n");

    const std::string script =
        "bash -c 'source " KARST_TEST_KARSTCTL ".bash; COMP_WORDS=(karstctl image update b); "
        "COMP_CWORD=3; _karstctl; echo \"${COMPREPLY[*]}\"'";
    std::FILE *shell = popen(script.c_str(), "r");
    ASSERT_NE(shell, nullptr);
    char line[256] = {0};
    EXPECT_NE(std::fgets(line, sizeof line, shell), nullptr);
    EXPECT_EQ(pclose(shell), 0);
    EXPECT_STREQ(line, "bmc bios bpncpld\n");
}

TEST_F(KarstctlTest, UpdateShowsItsProgressOrReturnsAtOnce) {
    std::string image(size_t{4} * 1024 * 1024, '\x5a');
    image[0] = '\x53';
    image[1] = '\x00';
    write_file(path("/bios.bin"), image);
    setenv("KARST_EMU_PROGRAM_RATE", "8388608", 1); // half a second
    const ToolRun update = run({"image", "update", "bios", "staging", "--file", path("/bios.bin")});
    EXPECT_EQ(update.status, 0) << update.err;
    EXPECT_EQ(update.out, "");
    EXPECT_TRUE(has(update.err, "0%\n") && has(update.err, "\n100%\n")) << update.err;
    EXPECT_EQ(run({"image", "progress", "bios", "--json"}).out,
              "{\"type\":\"bios\",\"percent\":100}\n");

    // --async returns while the update runs (eight seconds of programming), then it ends and its
    // process lets the session go: states waited for, with a bound no machine should reach.
    setenv("KARST_EMU_PROGRAM_RATE", "524288", 1);
    unlink(path("/tmp/fw-update-BIOS.out").c_str()); // the last update's progress, 100%
    const ToolRun async =
        run({"image", "update", "bios", "staging", "--file", path("/bios.bin"), "--async"});
    EXPECT_LT(pta20_img_updmsg(0x0101, 0), 100) << "returned only once the update ended";
    EXPECT_EQ(async.status, 0) << async.err;
    EXPECT_EQ(async.out, "");
    EXPECT_TRUE(has(async.err, "follow it with: karstctl image progress bios")) << async.err;
    EXPECT_TRUE(bios_update_ends());
    unsetenv("KARST_EMU_PROGRAM_RATE");
}

} // namespace
} // namespace karst::test
