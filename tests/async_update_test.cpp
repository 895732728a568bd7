// SPDX-License-Identifier: Apache-2.0
// The asynchronous update: the thread's states, the polls of the progress the emulator writes
// while it programs, and the progress files and their lines. Tests named "Thread" also run under
// ThreadSanitizer.
#include "core/fault_injection.hpp"
#include "images/async_update.hpp"
#include "images/progress_line.hpp"
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <chrono>
#include <thread>

using namespace karst::test;

namespace {

class AsyncUpdateThreadTest : public KarstTest {
  protected:
    // Starts the update of img (its result) and, once started, polls it until it has ended, for
    // five minutes at most (the polls in seen_).
    int update(uint32_t img) {
        ctx_.img = img;
        const int rc = pta20_img_update_async(&ctx_);
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(5);
        for (bool on = rc == 0; on && std::chrono::steady_clock::now() < give_up;) {
            seen_.push_back(pta20_img_updprogress(&ctx_));
            on = std::atomic_ref<int32_t>(ctx_.state).load() >= IMG_UPD_QUEUED;
            std::this_thread::sleep_for(std::chrono::milliseconds(on ? 10 : 0));
        }
        return rc;
    }
    std::string progress_file(const std::string &n) { return path("/tmp/fw-update-" + n + ".out"); }
    img_update_ctx ctx_{};
    std::vector<int> seen_;
};

// An update runs to its end (the image as large as the flash), the polls following it; a failed
// one ends in -1 and polls 0, until the caller makes the context idle again.
TEST_F(AsyncUpdateThreadTest, UpdatesStartAndRunToTheirEnd) {
    write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x40000, 5));
    write_file(progress_file("CPLD"), "written: 1, total: 1, 100%\n"); // stale: removed first
    karst_emu_program_rate(0x40000);                                   // one second
    ASSERT_EQ(update(0x0201), 0);
    EXPECT_EQ(ctx_.state, IMG_UPD_IDLE);
    EXPECT_TRUE(std::is_sorted(seen_.begin(), seen_.end())) << "never backwards";
    EXPECT_TRUE(std::any_of(seen_.begin(), seen_.end(), [](int p) { return p > 0 && p < 98; }));

    write_file(path("/nv1/erotmcu_staging.bin"), unsigned_image_bytes(0x1000));
    ctx_ = {IMG_UPD_IDLE, 0, 0, nullptr, 40, 0};
    ASSERT_EQ(update(0x1701), 0);
    EXPECT_EQ(ctx_.state, -1);
    EXPECT_EQ(pta20_img_updprogress(&ctx_), 0);
    EXPECT_EQ(update(0x1701), -1) << "only the caller moves -1 back to 0";
    write_file(path("/nv1/erotmcu_staging.bin"), image_bytes(0x1000));
    ctx_.state = IMG_UPD_IDLE;
    ASSERT_EQ(update(0x1701), 0);
    EXPECT_EQ(ctx_.state, IMG_UPD_IDLE);

    // Starts refused: no context, a context in use, a type without a progress file, a word out
    // of range, a thread that cannot start: the context as it was, or idle again.
    EXPECT_EQ(pta20_img_update_async(nullptr), -1);
    EXPECT_EQ(pta20_img_updprogress(nullptr), -1);
    ctx_ = {IMG_UPD_RUNNING, 0x0101, 0, nullptr, 33, 0};
    EXPECT_EQ(update(0x0101), -1);
    EXPECT_EQ(std::tie(ctx_.state, ctx_.progress), std::tuple(IMG_UPD_RUNNING, 33));
    for (uint32_t img : {0x0301u, 0x0001u, 0x1501u, 0x1601u, 0x1801u, 0x010Fu}) {
        ctx_ = {};
        EXPECT_TRUE(
            matches(capture_stdout([&] { EXPECT_EQ(update(img), -1); }),
                    R"(\[Error [0-9a-f]+ UtilPTA20\.cpp:\d+\] clean progress file failed\n)"));
        EXPECT_EQ(ctx_.state, IMG_UPD_IDLE) << std::hex << img;
    }
    karst::fault::arm(karst::fault::Kind::thread, 1);
    EXPECT_EQ(update(0x0201), -1);
    EXPECT_EQ(ctx_.state, IMG_UPD_IDLE);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 3u) << "only the updates that ran";
}

// The polls, never backwards nor above 98 (the end shows in the state), from the progress files
// of the five types that have one.
TEST_F(AsyncUpdateThreadTest, PollsOfTheProgressFiles) {
    ctx_.img = 0x0201;
    // The state (1 queued, 2 running, 0 idle), the file's line, what the poll returns.
    const std::tuple<int32_t, const char *, int> steps[] = {
        {1, "written: 5, total: 9, 5%", 5},   {2, "written: 1, total: 1, 10%", 10},
        {2, "written: 7, total: 9, 7%", 10},  {2, "written: 9, total: 9, 99", 10},
        {2, "written: 1, total: 1, 12%", 12}, {0, "written: 5, total: 9, 50%", 12},
        {2, "written: 9, total: 9, 100%", 98}};
    for (const auto &[state, line, expected] : steps) {
        ctx_.state = state;
        write_file(progress_file("CPLD"), line);
        EXPECT_EQ(pta20_img_updprogress(&ctx_), expected) << line;
    }
    // The five types' files, each with a first line of another form: any text before the first
    // marker and any character where a space stands, the percentage as atoi reads it, fields of
    // 15 characters.
    const std::tuple<uint32_t, std::string, const char *, int> files[] = {
        {0x0101, "BIOS", "written: 123456789012345, total: 123456789012345, 000000000000033%", 33},
        {0x0200, "CPLD", "fw: written:_1,_total:_2,_77%", 77},
        {0x090E, "NVFPGA", "written: 1, total: 2,  42abc%", 42},
        {0x0C01, "NVC1BIOS", "written: 1, total: 2, 999999999999999%", 2147483647},
        {0x1701, "NUVEROTMCU", "written: 3, total: 4, 75%", 75}};
    for (const auto &[img, name, line, percent] : files) {
        write_file(progress_file(name), line + std::string("\nwritten: 4, total: 4, 100%\n"));
        EXPECT_EQ(pta20_img_updmsg(img, 7), percent) << name; // any mode but 1 reads
        EXPECT_TRUE(matches(
            capture_stdout([&, img = img] { EXPECT_EQ(pta20_img_updmsg(img, 1), 0); }),
            R"(\[Debug [0-9a-f]+ UtilPTA20\.cpp:\d+\] cmd: rm -f )" + progress_file(name) + "\n"));
        EXPECT_EQ(pta20_img_updmsg(img, 0), -1) << "removed";
    }
    write_file(progress_file("BIOS"), "");
    EXPECT_EQ(pta20_img_updmsg(0x0101, 0), -1) << "empty";
    // Lines with markers missing, overlapping or out of order, and fields of 16 characters.
    for (const char *line :
         {"", "total: 2048, 50%", "written: 1024, 2048, 50%", "written: 1024, total: 2048 50%",
          "written: 1024, total: 2048, 50", "written: 1024, total: 2048, 0000000000000050%",
          "written: 1234567890123456, total: 2048, 50%", "written: 1, total: 1234567890123456, 50%",
          "written:total:,%", "written: total: 5, 5%", "written: 1, total:, 5%",
          "written: 1, total: 2,%", "%, total: written: 1"}) {
        EXPECT_EQ(karst::images::parse_progress_line(line), -1) << '"' << line << '"';
    }
}

} // namespace
