// SPDX-License-Identifier: Apache-2.0
// karstctl run as a process: firmware images (with the asynchronous update's progress on a
// pseudo-terminal and without one, and Ctrl-C) and the board's devices.
#include "karstctl/run_tool.hpp"
#include "support/test_env.hpp"

#include <chrono>
#include <csignal>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace karst::test {
namespace {

// karstctl on a pseudo-terminal: its exit status and what it wrote there (standard output and
// error). Once interrupt_when holds for the output seen so far, karstctl gets one SIGINT.
std::pair<int, std::string>
run_on_terminal(const std::vector<std::string> &args,
                const std::function<bool(const std::string &)> &interrupt_when) {
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        exec_karstctl(args);
    }
    std::string screen;
    bool sent = !interrupt_when;
    char chunk[4096];
    ssize_t n = 0;
    for (pollfd entry{master, POLLIN, 0};
         poll(&entry, 1, 60000) > 0 && (n = read(master, chunk, sizeof chunk)) > 0;) {
        screen.append(chunk, static_cast<size_t>(n)); // read fails once the terminal is gone
        sent = sent || (interrupt_when(screen) && kill(pid, SIGINT) == 0);
    }
    close(master);
    int wstatus = 0;
    const bool exited = waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus);
    return {exited ? WEXITSTATUS(wstatus) : -1, screen};
}

class KarstctlImageTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        write_file(path("/bios.bin"), image_);
        write_file(path("/bad.bin"), "\x54" + image_.substr(1)); // not signed
        setenv("KARST_EMU_PROGRAM_RATE", "8388608", 1);          // 4 MiB in half a second
    }
    void TearDown() override {
        unsetenv("KARST_EMU_PROGRAM_RATE");
        KarstTest::TearDown();
    }
    ToolRun run(const std::vector<std::string> &args) { return run_karstctl(root(), args); }
    static bool has(const std::string &s, const std::string &p) { return s.find(p) != s.npos; }
    const std::string image_ = std::string("\x53\x00", 2) + std::string(4 * 1024 * 1024 - 2, 'Z');
};

TEST_F(KarstctlImageTest, CommandsByNameAndNumber) {
    // Arguments, exit status (2: a usage error), a part of what is printed on standard output.
    const std::tuple<std::vector<std::string>, int, std::string> runs[] = {
        {{"image", "auth", "bios", "--buffer", path("/bad.bin")}, 1, ""},
        {{"image", "auth", "bios", "--file", path("/bios.bin"), "--extended"}, 2, ""},
        {{"image", "auth", "toaster"}, 2, ""},
        {{"image", "upload", "bios", "staging", "--file", path("/bios.bin")}, 0, ""},
        {{"image", "upload", "1", "2", "--buffer", path("/bios.bin")}, 0, ""},
        {{"image", "delete", "bios", "staging"}, 0, ""},
        {{"image", "dump", "cpld", "evidence", "-o", path("/cpld.bin")}, 0, ""},
        {{"image", "progress", "bmc"}, 2, ""},
        {{"cpld", "write", "0x21", "0x5a"}, 0, ""},
        {{"cpld", "read", "0x21"}, 0, "0x5a\n"},
        {{"sigtbl", path("/bios.bin")}, 0, "block "},
        {{"sigtbl", path("/bad.bin")}, 1, ""},
        {{"bios-4byte", "on"}, 0, ""},
        {{"bios-4byte", "maybe"}, 2, ""},
        {{"fpga-ready"}, 0, ""}};
    for (const auto &[args, status, part] : runs) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, status) << args[0] << ' ' << args[1] << ": " << r.err;
        EXPECT_TRUE(has(r.out, part)) << r.out;
    }
    uint64_t size = 0, digest = 0; // the backup's copy is the image, the staging's is deleted
    ASSERT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_BACKUP), &size, &digest), 0);
    EXPECT_EQ(digest, karst_emu_image_digest(image_.data(), image_.size()));
    EXPECT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), &size, &digest), -1);
    EXPECT_TRUE(has(read_file(path("/cpld.bin")), "karst emulator factory"));
}

// Without a terminal the percentages are printed on standard error, one a line; on a terminal a
// bar is drawn; Ctrl-C ends the watching, not the update.
TEST_F(KarstctlImageTest, UpdateIsWatched) {
    const ToolRun r = run({"image", "update", "bios", "staging", "--file", path("/bios.bin")});
    EXPECT_TRUE(r.status == 0 && r.out.empty() && has(r.err, "0%\n") && r.err.ends_with("\n100%\n"))
        << r.err << r.out;
    EXPECT_FALSE(has(r.err, "\r"));
    EXPECT_EQ(run({"image", "progress", "bios"}).out, "100%\n");
    const ToolRun bad = run({"image", "update", "bios", "staging", "--file", path("/bad.bin")});
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(has(bad.err, "karstctl: the update failed: TEEC_ERROR_SECURITY")) << bad.err;

    const auto [status, screen] =
        run_on_terminal({"image", "update", "bios", "--buffer", path("/bios.bin")}, nullptr);
    EXPECT_EQ(status, 0) << screen;
    EXPECT_TRUE(has(screen, "\r[") && has(screen, "] 100%  4.0/4.0 MiB  00:0")) << screen;

    setenv("KARST_EMU_PROGRAM_RATE", "1048576", 1);  // four seconds: time to interrupt it
    unlink(path("/tmp/fw-update-BIOS.out").c_str()); // the last update's progress, 100%
    // Interrupted once the bar is drawn and the update's own process programs (its progress file
    // is there): by then that process has left the terminal's session.
    const auto [stopped, shown] = run_on_terminal(
        {"image", "update", "bios", "staging", "--file", path("/bios.bin")},
        [](const std::string &now) { return has(now, "[") && pta20_img_updmsg(0x0101, 0) >= 0; });
    EXPECT_EQ(stopped, 3) << shown;
    EXPECT_TRUE(has(shown, "stopped watching; the bios update goes on in process ")) << shown;
    EXPECT_TRUE(has(shown, "follow it with: karstctl image progress bios")) << shown;
    EXPECT_TRUE(bios_update_ends());
}

} // namespace
} // namespace karst::test
