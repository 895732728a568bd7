// karstctl run as a process: firmware images (with the asynchronous update's progress on a
// pseudo-terminal and without one, and Ctrl-C) and the board's devices.
#include "karstctl/run_tool.hpp"
#include "support/test_env.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace karst::test {
namespace {

constexpr uint32_t MIB = 1024 * 1024;

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// karstctl on a pseudo-terminal: what it wrote there (standard output and error) and its exit
// status. on_output may act on the output seen so far (once it returns true it is not called
// again).
struct TerminalRun {
    int status = -1;
    std::string screen;
};

TerminalRun run_on_terminal(const std::vector<std::string> &args,
                            const std::function<bool(pid_t, const std::string &)> &on_output) {
    int master = -1;
    std::fflush(nullptr);
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        exec_karstctl(args);
    }
    TerminalRun run;
    bool acted = false;
    char chunk[4096];
    for (;;) {
        pollfd entry{master, POLLIN, 0};
        if (poll(&entry, 1, 60000) <= 0) {
            break;
        }
        const ssize_t n = read(master, chunk, sizeof chunk);
        if (n <= 0) {
            break; // EIO once the terminal's last writer is gone
        }
        run.screen.append(chunk, static_cast<size_t>(n));
        if (!acted && on_output) {
            acted = on_output(pid, run.screen);
        }
    }
    close(master);
    int wstatus = 0;
    if (waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus)) {
        run.status = WEXITSTATUS(wstatus);
    }
    return run;
}

class KarstctlImageTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        std::string image(4 * MIB, '\x5a');
        image[0] = '\x53';
        image[1] = '\x00';
        write_file(path("/bios.bin"), image);
        image[0] = '\x54';
        write_file(path("/bad.bin"), image);
        setenv("KARST_EMU_PROGRAM_RATE", "8388608", 1); // 4 MiB in half a second
    }
    void TearDown() override {
        unsetenv("KARST_EMU_PROGRAM_RATE");
        KarstTest::TearDown();
    }
    ToolRun run(const std::vector<std::string> &args) { return run_karstctl(root(), args); }
};

TEST_F(KarstctlImageTest, AuthUploadDumpDeleteByNameAndNumber) {
    EXPECT_EQ(run({"image", "auth", "bios", "staging", "--file", path("/bios.bin")}).status, 0);
    EXPECT_EQ(run({"image", "auth", "bios", "--buffer", path("/bad.bin")}).status, 1);
    EXPECT_EQ(run({"image", "auth", "bios", "--file", path("/bios.bin"), "--extended"}).status,
              108); // options exclude each other
    EXPECT_EQ(run({"image", "auth", "toaster"}).status, 105);

    EXPECT_EQ(run({"image", "upload", "bios", "staging", "--buffer", path("/bios.bin")}).status, 0);
    uint64_t size = 0;
    uint64_t digest = 0;
    ASSERT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), &size, &digest), 0);
    EXPECT_EQ(size, 4u * MIB);
    EXPECT_EQ(run({"image", "upload", "1", "2", "--file", path("/bios.bin")}).status, 0);
    EXPECT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_BACKUP), &size, &digest), 0);

    EXPECT_EQ(run({"image", "delete", "bios", "staging"}).status, 0);
    EXPECT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), &size, &digest), -1);

    EXPECT_EQ(run({"image", "dump", "cpld", "evidence", "-o", path("/cpld.bin")}).status, 0);
    EXPECT_TRUE(has(read_file(path("/cpld.bin")), "karst emulator factory"));
}

TEST_F(KarstctlImageTest, AsyncUpdateWithoutATerminalPrintsPercentages) {
    const ToolRun r =
        run({"image", "update", "bios", "staging", "--file", path("/bios.bin"), "--async"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("0%\n", 0), 0u) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 5), "100%\n") << r.out;
    EXPECT_EQ(r.out.find('\r'), std::string::npos);
    EXPECT_EQ(run({"image", "progress", "bios"}).out, "100%\n");
    EXPECT_EQ(run({"image", "progress", "bmc"}).status, 1);

    const ToolRun bad =
        run({"image", "update", "bios", "staging", "--file", path("/bad.bin"), "--async"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "karstctl: the update failed\n");
}

TEST_F(KarstctlImageTest, AsyncUpdateOnATerminalDrawsABar) {
    const TerminalRun r = run_on_terminal(
        {"image", "update", "bios", "--buffer", path("/bios.bin"), "--async"}, nullptr);
    EXPECT_EQ(r.status, 0) << r.screen;
    EXPECT_TRUE(has(r.screen, "\r[")) << r.screen;
    EXPECT_TRUE(has(r.screen, "] 100%  4.0/4.0 MiB  00:0")) << r.screen;
}

TEST_F(KarstctlImageTest, CtrlCLeavesTheUpdateRunning) {
    setenv("KARST_EMU_PROGRAM_RATE", "1048576", 1); // four seconds: time to interrupt it
    const uint32_t bios = IMG_ID(IMG_TYPE_BIOS, 0);
    const TerminalRun r = run_on_terminal(
        {"image", "update", "bios", "staging", "--file", path("/bios.bin"), "--async"},
        [bios](pid_t pid, const std::string &screen) {
            // Once the bar is drawn and the update's own process programs (its progress file is
            // there): by then that process has left the terminal's session.
            if (!has(screen, "[") || pta20_img_updmsg(bios, 0) < 0) {
                return false;
            }
            kill(pid, SIGINT);
            return true;
        });
    EXPECT_EQ(r.status, 3) << r.screen;
    EXPECT_TRUE(has(r.screen, "stopped watching; the update goes on")) << r.screen;
    // The update finishes on its own, then its process releases the session: states waited
    // for, with a bound no machine should reach.
    const auto wait_for = [](const std::function<bool()> &done) {
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(5);
        while (!done() && std::chrono::steady_clock::now() < give_up) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return done();
    };
    EXPECT_TRUE(wait_for([bios] { return pta20_img_updmsg(bios, 0) == 100; }));
    EXPECT_TRUE(wait_for([] {
        uint32_t rc = 1;
        capture_stdout([&] { rc = pta_open_session(); }); // it retries, and says so, while busy
        pta_close_session();
        return rc == 0;
    })) << "the update's process keeps the session";
}

TEST_F(KarstctlImageTest, BoardDevices) {
    EXPECT_EQ(run({"cpld", "write", "0x21", "0x5a"}).status, 0);
    EXPECT_TRUE(has(run({"cpld", "read", "0x21"}).out, "Read CPLD Reg[")) << "register read";
    EXPECT_TRUE(has(run({"sigtbl", path("/bios.bin")}).out, "Table Version: 0x5300"));
    EXPECT_EQ(run({"sigtbl", path("/bad.bin")}).status, 1);
    EXPECT_EQ(run({"bios-4byte", "on"}).status, 0);
    EXPECT_EQ(run({"bios-4byte", "maybe"}).status, 105);
    EXPECT_EQ(run({"fpga-ready"}).status, 0);
}

} // namespace
} // namespace karst::test
