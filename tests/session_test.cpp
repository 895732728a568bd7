// SPDX-License-Identifier: Apache-2.0
// Opening and closing the process's TEE session: the busy rule, the retry loop against a busy
// application, failures of the client library, threads and other processes.
#include "core/tee_session.hpp"
#include "support/test_env.hpp"

#include <atomic>
#include <chrono>
#include <thread>

using namespace karst::test;

namespace {

class SessionTest : public KarstTest {};

const uint32_t BUSY = TEEC_ERROR_BUSY;
const std::string FAILED = R"(\[E:pta_open_session:\d+\] TEEC_)";

std::string retry_lines(int count) {
    std::string re;
    for (int i = 1; i <= count; ++i) {
        re += FAILED + "Opensession retries " + std::to_string(i) + R"( time\(s\)\n)";
    }
    return re;
}

TEST_F(SessionTest, OpenCloseAndASecondOpenRefusedAtOnce) {
    ASSERT_EQ(pta_open_session(), 0u);
    EXPECT_GE(karst::tee::context().fd, 0);
    uint32_t second = 0;
    const std::string out = capture_stdout([&] { second = pta_open_session(); });
    EXPECT_EQ(second, BUSY);
    EXPECT_TRUE(matches(out, R"(\[I:pta_open_session:\d+\] pta_open_session: TEE is busy)"));
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 1u) << "the busy answer must touch nothing";
    char value[64] = {}; // the first session still works
    EXPECT_EQ(_pta_invoke_ubootenv_get("bootdelay", value, sizeof value), 0);
    EXPECT_STREQ(value, "2");
    pta_close_session();
    EXPECT_EQ(karst::tee::context().fd, -1);
    pta_close_session(); // a stray close changes nothing
}

// A busy application is retried (three attempts, 100 ms apart); any other refusal, or a failed
// context, is not. A failure closes the context, and the next open starts afresh.
TEST_F(SessionTest, BusyAnswersAreRetriedOtherFailuresAreNot) {
    const uint32_t denied = TEEC_ERROR_ACCESS_DENIED, missing = TEEC_ERROR_ITEM_NOT_FOUND;
    const struct {
        karst_emu_op op;
        uint32_t code, count, result, opens;
        std::string failure; // the final message
    } cases[] = {
        {KARST_EMU_OPEN, BUSY, 2, 0, 3, ""},
        {KARST_EMU_OPEN, BUSY, 3, BUSY, 3, "Opensession failed with code 0xffff000d origin 0x4"},
        {KARST_EMU_OPEN, denied, 1, denied, 1,
         "Opensession failed with code 0xffff0001 origin 0x4"},
        {KARST_EMU_INIT, missing, 1, missing, 0, "InitializeContext failed with code 0xffff0008"},
    };
    for (const auto &c : cases) {
        karst_emu_reset();
        const std::vector<uint32_t> script(c.count, c.code);
        karst_emu_script(c.op, script.data(), script.size());
        const int retries = c.code == BUSY ? static_cast<int>(c.count) : 0;
        uint32_t res = 1;
        const auto t0 = std::chrono::steady_clock::now();
        const std::string out = capture_stdout([&] { res = pta_open_session(); });
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100 * retries));
        EXPECT_EQ(res, c.result);
        const std::string last = c.failure.empty() ? "" : FAILED + c.failure + "\n";
        EXPECT_TRUE(matches(out, retry_lines(retries) + last));
        EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), c.opens);
        EXPECT_EQ(karst::tee::context().fd >= 0, c.result == 0);
        pta_close_session();
        ASSERT_EQ(pta_open_session(), 0u);
        pta_close_session();
    }
}

// Of two threads that open together exactly one wins; only that one can close what it opened.
TEST_F(SessionTest, OfTwoThreadsOpeningTogetherExactlyOneWinsAndOnlyItCloses) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<int> arrived{0};
        uint32_t results[2] = {};
        bool open_after_stray_close = false;
        auto opener = [&](int i) {
            const auto together = [&](int n) { // both threads at step n / 2
                for (arrived.fetch_add(1); arrived.load() < n;) {
                }
            };
            together(2);
            results[i] = pta_open_session();
            together(4);
            if (results[i] != 0) {
                pta_close_session(); // the loser's close must not end the winner's session
            }
            together(6);
            if (results[i] == 0) {
                open_after_stray_close = karst::tee::is_open();
                pta_close_session();
            }
        };
        capture_stdout([&] {
            std::thread a(opener, 0), b(opener, 1);
            a.join();
            b.join();
        });
        ASSERT_EQ(std::min(results[0], results[1]), 0u) << "round " << round;
        ASSERT_EQ(std::max(results[0], results[1]), BUSY) << "round " << round;
        ASSERT_TRUE(open_after_stray_close) << "round " << round;
        ASSERT_FALSE(karst::tee::is_open());
    }
}

// Another process holding the application is waited out (the retry loop gets through once the
// holder lets go), and one that dies releases it.
TEST_F(SessionTest, AnotherProcessHoldingTheApplicationIsWaitedOutOrDies) {
    SessionHolder holder;
    ASSERT_TRUE(holder.holding());
    uint32_t res = 0;
    std::string out = capture_stdout([&] { res = pta_open_session(); });
    EXPECT_EQ(res, BUSY);
    EXPECT_NE(out.find("retries 3 time(s)"), std::string::npos) << out;
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        holder.release();
    });
    out = capture_stdout([&] { res = pta_open_session(); });
    releaser.join();
    EXPECT_EQ(res, 0u) << out;
    pta_close_session();

    SessionHolder dying;
    ASSERT_TRUE(dying.holding());
    dying.kill_holder();
    ASSERT_EQ(pta_open_session(), 0u);
    pta_close_session();
}

} // namespace
