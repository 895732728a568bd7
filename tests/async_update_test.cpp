// The asynchronous update: the thread's state machine, polling of real progress written by the
// emulator while it programs, and the rules of the poll. These tests run threads; the test
// command also runs them under ThreadSanitizer.
#include "images/async_update.hpp"
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <chrono>
#include <regex>
#include <thread>

using namespace karst::test;

namespace {

class AsyncUpdateThreadTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        karst_emu_program_rate(0);
    }

    static img_update_ctx context(uint32_t img, void *arg = nullptr, uint32_t size = 0) {
        img_update_ctx ctx{};
        ctx.img = img;
        ctx.arg = arg;
        ctx.size = size;
        return ctx;
    }

    // Polls until the update has ended; returns every value the polls reported.
    static std::vector<int> poll_to_the_end(img_update_ctx &ctx) {
        std::vector<int> seen;
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::atomic_ref<int32_t>(ctx.state).load() >= IMG_UPD_QUEUED &&
               std::chrono::steady_clock::now() < give_up) {
            seen.push_back(pta20_img_updprogress(&ctx));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return seen;
    }

    void write_progress(const char *line) { write_file(path("/tmp/fw-update-CPLD.out"), line); }
};

TEST_F(AsyncUpdateThreadTest, PollsFollowTheProgrammingToTheEnd) {
    write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x40000, 5));
    write_progress("written: 1, total: 1, 100%\n"); // stale: removed before the start
    karst_emu_program_rate(0x40000);                // one second for the whole image
    img_update_ctx ctx = context(0x0201);
    std::vector<int> seen;
    const std::string out = capture_stdout([&] {
        ASSERT_EQ(pta20_img_update_async(&ctx), 0);
        seen = poll_to_the_end(ctx);
    });
    EXPECT_EQ(ctx.state, IMG_UPD_IDLE);
    ASSERT_FALSE(seen.empty());
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end())) << "never backwards";
    EXPECT_LE(seen.back(), 98);
    const bool in_between =
        std::any_of(seen.begin(), seen.end(), [](int p) { return p > 0 && p < 98; });
    EXPECT_TRUE(in_between) << "the programming was seen progressing";
    EXPECT_TRUE(
        std::regex_search(out, std::regex(R"(\[Debug [0-9a-f]+ UtilPTA20\.cpp:\d+\] cmd: rm -f )" +
                                          path("/tmp/fw-update-CPLD.out") + "\n")))
        << out;

    // After success the percentage stays where it was; the file says 100.
    const int last = ctx.progress;
    EXPECT_EQ(pta20_img_updprogress(&ctx), last);
    EXPECT_EQ(pta20_img_updmsg(0x0201, 0), 100);
    EXPECT_EQ(read_file(path("/tmp/fw-update-CPLD.out")), "written: 262144, total: 262144, 100%\n");

    // The device holds the new image.
    ASSERT_EQ(pta20_img_dump(0x0202, 0, nullptr, 0x40000), 0);
    EXPECT_EQ(read_file(path("/nv1/cpld_backup.bin")), image_bytes(0x40000, 5));
}

TEST_F(AsyncUpdateThreadTest, TheUpdateHoldsTheSessionUntilItEnds) {
    write_file(path("/nv1/bios_staging.bin"), image_bytes(0x80000));
    karst_emu_program_rate(0x80000 * 2); // half a second
    img_update_ctx ctx = context(0x0101);
    capture_stdout([&] {
        ASSERT_EQ(pta20_img_update_async(&ctx), 0);
        while (std::atomic_ref<int32_t>(ctx.state).load() != IMG_UPD_RUNNING) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        char value[64];
        EXPECT_EQ(pta20_ubootenv_get("bootcmd", value, sizeof value), -1) << "TEE is busy";
        poll_to_the_end(ctx);
    });
    EXPECT_EQ(ctx.state, IMG_UPD_IDLE);
}

TEST_F(AsyncUpdateThreadTest, AFailedUpdateEndsInMinusOneAndPollsZero) {
    write_file(path("/nv1/erotmcu_staging.bin"), unsigned_image_bytes(0x1000));
    img_update_ctx ctx = context(0x1701);
    ctx.progress = 40;
    capture_stdout([&] {
        ASSERT_EQ(pta20_img_update_async(&ctx), 0);
        poll_to_the_end(ctx);
    });
    EXPECT_EQ(ctx.state, -1);
    EXPECT_EQ(pta20_img_updprogress(&ctx), 0);
    // Only the caller moves -1 back to 0.
    EXPECT_EQ(pta20_img_update_async(&ctx), -1);
    EXPECT_EQ(ctx.state, -1);
    write_file(path("/nv1/erotmcu_staging.bin"), image_bytes(0x1000));
    ctx.state = IMG_UPD_IDLE;
    capture_stdout([&] {
        ASSERT_EQ(pta20_img_update_async(&ctx), 0);
        poll_to_the_end(ctx);
    });
    EXPECT_EQ(ctx.state, IMG_UPD_IDLE);
}

TEST_F(AsyncUpdateThreadTest, StartsThatAreRefused) {
    EXPECT_EQ(pta20_img_update_async(nullptr), -1);
    img_update_ctx busy = context(0x0101);
    busy.state = IMG_UPD_RUNNING;
    busy.progress = 33;
    EXPECT_EQ(pta20_img_update_async(&busy), -1);
    EXPECT_EQ(busy.state, IMG_UPD_RUNNING);
    EXPECT_EQ(busy.progress, 33);

    // Types without a progress file, and words out of range.
    for (uint32_t img : {0x0301u, 0x0001u, 0x1501u, 0x1801u, 0x010Fu}) {
        img_update_ctx ctx = context(img);
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(pta20_img_update_async(&ctx), -1); });
        EXPECT_TRUE(std::regex_match(
            out,
            std::regex(R"(\[Error [0-9a-f]+ UtilPTA20\.cpp:\d+\] clean progress file failed\n)")))
            << out;
        EXPECT_EQ(ctx.state, IMG_UPD_IDLE);
    }
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 0u);
}

TEST_F(AsyncUpdateThreadTest, ThreadBodyRunsOnlyAQueuedContext) {
    img_update_thread(nullptr);
    for (int32_t state : {IMG_UPD_IDLE, IMG_UPD_RUNNING, -1}) {
        img_update_ctx ctx = context(0x0201);
        ctx.state = state;
        EXPECT_EQ(img_update_thread(&ctx), nullptr);
        EXPECT_EQ(ctx.state, state);
    }
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 0u);
    img_update_ctx ctx = context(0x0201); // no staging file: the update fails
    ctx.state = IMG_UPD_QUEUED;
    capture_stdout([&] { img_update_thread(&ctx); });
    EXPECT_EQ(ctx.state, -1);
}

TEST_F(AsyncUpdateThreadTest, PollNeverGoesBackwardsNorAbove98) {
    img_update_ctx ctx = context(0x0201);
    ctx.state = IMG_UPD_RUNNING; // as the thread leaves it while it runs
    const struct {
        const char *line;
        int expected;
    } steps[] = {
        {"written: 10, total: 100, 10%\n", 10},
        {"written: 7, total: 100, 7%\n", 10},
        {"garbage\n", 10},
        {"written: 12, total: 100, 12%\n", 12},
        {"written: 100, total: 100, 100%\n", 98},
    };
    for (const auto &step : steps) {
        write_progress(step.line);
        EXPECT_EQ(pta20_img_updprogress(&ctx), step.expected) << step.line;
    }
    capture_stdout([] { pta20_img_updmsg(0x0201, 1); });
    EXPECT_EQ(pta20_img_updprogress(&ctx), 98) << "a missing file keeps the last value";
    ctx.state = IMG_UPD_QUEUED;
    ctx.progress = 0;
    write_progress("written: 5, total: 100, 5%\n");
    EXPECT_EQ(pta20_img_updprogress(&ctx), 5);
    ctx.state = IMG_UPD_IDLE;
    write_progress("written: 50, total: 100, 50%\n");
    EXPECT_EQ(pta20_img_updprogress(&ctx), 5) << "idle: left as it is";
    EXPECT_EQ(pta20_img_updprogress(nullptr), -1);
}

} // namespace
