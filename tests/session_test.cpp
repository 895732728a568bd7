// Opening and closing the process's TEE session: the busy rule, the retry loop against a busy
// application, failures of the client library, threads and other processes.
#include "core/tee_session.hpp"
#include "support/test_env.hpp"

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

using namespace karst::test;
using karst::tee::context_fd;

namespace {

class SessionTest : public KarstTest {};

const uint32_t BUSY = TEEC_ERROR_BUSY;

std::string retry_lines(int count) {
    std::string re;
    for (int i = 1; i <= count; ++i) {
        re += R"(\[E:pta_open_session:\d+\] TEEC_Opensession retries )" + std::to_string(i) +
              R"( time\(s\)\n)";
    }
    return re;
}

TEST_F(SessionTest, OpenAndCloseLeaveTheDescriptorClosed) {
    EXPECT_EQ(context_fd(), -1);
    ASSERT_EQ(pta_open_session(), 0u);
    EXPECT_GE(karst::tee::context().fd, 0);
    pta_close_session();
    EXPECT_EQ(karst::tee::context().fd, -1);
    pta_close_session(); // a stray close changes nothing
    ASSERT_EQ(pta_open_session(), 0u);
    pta_close_session();
}

TEST_F(SessionTest, SecondOpenIsRefusedAtOnceAndTheFirstStillWorks) {
    ASSERT_EQ(pta_open_session(), 0u);
    uint32_t second = 0;
    const std::string out = capture_stdout([&] { second = pta_open_session(); });
    EXPECT_EQ(second, BUSY);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[I:pta_open_session:\d+\] pta_open_session: TEE is busy)")))
        << out;
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 1u) << "the busy answer must touch nothing";

    char value[64] = {};
    EXPECT_EQ(_pta_invoke_ubootenv_get("bootdelay", value, sizeof value), 0);
    EXPECT_STREQ(value, "2");
    pta_close_session();
}

TEST_F(SessionTest, BusyApplicationIsRetriedUntilItAnswers) {
    const uint32_t script[] = {BUSY, BUSY};
    karst_emu_script(KARST_EMU_OPEN, script, 2);
    uint32_t res = 1;
    const auto t0 = std::chrono::steady_clock::now();
    const std::string out = capture_stdout([&] { res = pta_open_session(); });
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(200));
    EXPECT_EQ(res, 0u);
    EXPECT_TRUE(std::regex_match(out, std::regex(retry_lines(2)))) << out;
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 3u);
    pta_close_session();
}

TEST_F(SessionTest, ThreeBusyAnswersGiveUpAndCloseTheContext) {
    const uint32_t script[] = {BUSY, BUSY, BUSY};
    karst_emu_script(KARST_EMU_OPEN, script, 3);
    uint32_t res = 0;
    const std::string out = capture_stdout([&] { res = pta_open_session(); });
    EXPECT_EQ(res, BUSY);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(retry_lines(3) + R"(\[E:pta_open_session:\d+\] TEEC_Opensession failed )"
                                         R"(with code 0xffff000d origin 0x4\n)")))
        << out;
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 3u);
    EXPECT_EQ(karst::tee::context().fd, -1);

    // The next open starts afresh.
    ASSERT_EQ(pta_open_session(), 0u);
    pta_close_session();
}

// A failed context or a refusal other than busy: one attempt, its message, the context closed,
// and the next open works.
TEST_F(SessionTest, OtherFailuresAreNotRetriedAndLeaveItClosed) {
    const struct {
        karst_emu_op op;
        uint32_t code;
        const char *message;
        unsigned opens;
    } cases[] = {
        {KARST_EMU_OPEN, TEEC_ERROR_ACCESS_DENIED,
         "TEEC_Opensession failed with code 0xffff0001 origin 0x4", 1},
        {KARST_EMU_INIT, TEEC_ERROR_ITEM_NOT_FOUND,
         "TEEC_InitializeContext failed with code 0xffff0008", 0},
    };
    for (const auto &c : cases) {
        karst_emu_reset();
        karst_emu_fail_nth(c.op, 1, c.code);
        uint32_t res = 0;
        const std::string out = capture_stdout([&] { res = pta_open_session(); });
        EXPECT_EQ(res, c.code);
        EXPECT_TRUE(matches(out, R"(\[E:pta_open_session:\d+\] )" + std::string(c.message) + "\n"));
        EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), c.opens);
        EXPECT_EQ(karst::tee::context().fd, -1);
        ASSERT_EQ(pta_open_session(), 0u);
        pta_close_session();
    }
}

// Of two threads that open together exactly one wins; only that one can close what it opened.
TEST_F(SessionTest, OfTwoThreadsOpeningTogetherExactlyOneWinsAndOnlyItCloses) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<int> ready{0};
        std::atomic<int> opened{0};
        uint32_t results[2] = {};
        bool open_after_stray_close = false;
        auto opener = [&](int i) {
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            results[i] = pta_open_session();
            opened.fetch_add(1);
            while (opened.load() < 2) {
            }
            if (results[i] != 0) {
                pta_close_session(); // the loser's close must not end the winner's session
                opened.fetch_add(1);
            } else {
                while (opened.load() < 3) {
                }
                open_after_stray_close = karst::tee::is_open();
                pta_close_session();
            }
        };
        capture_stdout([&] {
            std::thread a(opener, 0), b(opener, 1);
            a.join();
            b.join();
        });
        ASSERT_TRUE((results[0] == 0 && results[1] == BUSY) ||
                    (results[0] == BUSY && results[1] == 0))
            << "round " << round << ": " << std::hex << results[0] << " " << results[1];
        ASSERT_TRUE(open_after_stray_close) << "round " << round;
        ASSERT_FALSE(karst::tee::is_open());
    }
}

TEST_F(SessionTest, AnotherProcessHoldingTheApplicationIsWaitedOut) {
    SessionHolder holder;
    ASSERT_TRUE(holder.holding());
    uint32_t res = 0;
    std::string out = capture_stdout([&] { res = pta_open_session(); });
    EXPECT_EQ(res, BUSY);
    EXPECT_NE(out.find("retries 3 time(s)"), std::string::npos) << out;

    // While we wait, the holder lets go: the retry loop gets through.
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        holder.release();
    });
    out = capture_stdout([&] { res = pta_open_session(); });
    releaser.join();
    EXPECT_EQ(res, 0u) << out;
    pta_close_session();
}

TEST_F(SessionTest, AHolderThatDiesReleasesTheApplication) {
    SessionHolder holder;
    ASSERT_TRUE(holder.holding());
    holder.kill_holder();
    ASSERT_EQ(pta_open_session(), 0u);
    pta_close_session();
}

} // namespace
