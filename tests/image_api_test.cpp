// The exported image calls: checks before the session, busy retries and their log line, the
// dumps before an update and their order, the active BMC dump from the eMMC with dd.
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

using namespace karst::test;

namespace {

class ImageApiTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        karst_emu_program_rate(0);
    }
};

const std::string DEBUG = R"(\[Debug [0-9a-f]+ UtilPTA20\.cpp:\d+\] )";
const std::string ERROR = R"(\[Error [0-9a-f]+ UtilPTA20\.cpp:\d+\] )";

TEST_F(ImageApiTest, AuthenticationMakesOneAttemptUnlessBusy) {
    write_file(path("/nv1/bios_staging.bin"), image_bytes(4096));
    std::string out = capture_stdout([] { EXPECT_EQ(pta20_img_auth(0x0101, 0, nullptr, 0), 0); });
    EXPECT_TRUE(matches(out, R"(\[I:pta_mmap_img:\d+\] mapping .*\n)" + DEBUG +
                                 R"(PTA_DALU_CMD_FW_AUTH rc = 0; retry left 10:10\n)"))
        << out;
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), 1u);

    // A failed authentication is -1 from the routine: nothing to retry.
    write_file(path("/nv1/bios_staging.bin"), unsigned_image_bytes(4096));
    out = capture_stdout([] { EXPECT_EQ(pta20_img_auth(0x0101, 0, nullptr, 0), -1); });
    EXPECT_NE(out.find("PTA_DALU_CMD_FW_AUTH rc = ffffffff; retry left 10:10\n"),
              std::string::npos);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), 2u);
}

TEST_F(ImageApiTest, UploadMakesAtMostTenAttemptsWhileBusy) {
    const std::string image = image_bytes(512);
    const uint32_t busy = 0xFFFFFFFE;
    const std::vector<uint32_t> ten(10, busy);
    karst_emu_script(KARST_EMU_INVOKE, ten.data(), ten.size());
    int rc = 0;
    std::string out = capture_stdout(
        [&] { rc = pta20_img_upload(0x0201, IMG_SRC_BUFFER, (void *)image.data(), 512); });
    EXPECT_EQ(static_cast<uint32_t>(rc), busy);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), 10u);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 1u) << "one session for all attempts";
    EXPECT_TRUE(matches(out, "(\\[E:pta_invoke_fw_upload:\\d+\\] TEEC_InvokeCommand failed with "
                             "code 0xfffffffe origin 0x4\\n){10}" +
                                 DEBUG +
                                 "PTA_DALU_CMD_FW_UPLOAD rc = fffffffe; retry left 0:10\\n"))
        << out;

    karst_emu_reset();
    karst_emu_program_rate(0);
    const uint32_t three_busy[] = {busy, busy, busy};
    karst_emu_script(KARST_EMU_INVOKE, three_busy, 3);
    out = capture_stdout(
        [&] { rc = pta20_img_upload(0x0201, IMG_SRC_BUFFER, (void *)image.data(), 512); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), 4u);
    EXPECT_NE(out.find("PTA_DALU_CMD_FW_UPLOAD rc = 0; retry left 7:10\n"), std::string::npos);

    // Other codes come back as they are, after one attempt.
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_OUT_OF_MEMORY);
    capture_stdout(
        [&] { rc = pta20_img_upload(0x0201, IMG_SRC_BUFFER, (void *)image.data(), 512); });
    EXPECT_EQ(static_cast<uint32_t>(rc), TEEC_ERROR_OUT_OF_MEMORY);
}

TEST_F(ImageApiTest, UpdateDumpsBackupAndEvidenceFirstInOrder) {
    write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x3000, 7));
    std::string out =
        capture_stdout([] { EXPECT_EQ(pta20_img_update(0x0201, 0x18, nullptr, 0), 0); });
    const auto records = journal();
    ASSERT_EQ(records.size(), 3u);
    const struct {
        uint32_t command, img, flags;
    } expected[] = {{3, 0x0202, 0}, {3, 0x0204, 0}, {2, 0x0201, 0x18}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(records[i].command, expected[i].command) << i;
        EXPECT_EQ(records[i].params[0].a, expected[i].img) << i;
        EXPECT_EQ(records[i].params[0].b, expected[i].flags) << i;
    }
    EXPECT_EQ(records[0].params[1].size, 0x40000u) << "size 0: the slot's whole size";
    EXPECT_EQ(records[2].params[1].size, 0x3000u);
    // The dumps hold the device's image from before the update; a later dump the new one.
    const std::string backup = read_file(path("/nv1/cpld_backup.bin"));
    EXPECT_EQ(backup, read_file(path("/nv1/cpld_evidence.bin")));
    EXPECT_EQ(backup.compare(0, 4, "\x53\x00\x00\x02", 4), 0);
    ASSERT_EQ(pta20_img_dump(0x0202, 0, nullptr, 0x3000), 0);
    EXPECT_EQ(read_file(path("/nv1/cpld_backup.bin")), image_bytes(0x3000, 7));
}

TEST_F(ImageApiTest, UpdateReportsAFailedDumpButStillUpdates) {
    write_file(path("/nv1/bmc_staging.bin"), image_bytes(0x1000, 3));
    EXPECT_EQ(pta20_img_update(0x0001, IMG_FLAG_BACKUP, nullptr, 0), -1)
        << "the BMC has no dump command";
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u) << "the refused dump reaches nothing";
    EXPECT_EQ(records[0].command, 2u);
    EXPECT_EQ(records[0].result, 0u);

    karst_emu_fail_nth(KARST_EMU_INVOKE, 2, TEEC_ERROR_GENERIC); // the update itself
    write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x100));
    capture_stdout([] { EXPECT_EQ(pta20_img_update(0x0201, IMG_FLAG_EVIDENCE, nullptr, 0), -1); });
    EXPECT_EQ(pta20_img_update(0x0201, 0, nullptr, 0), 0);
}

TEST_F(ImageApiTest, ChecksComeBeforeTheSession) {
    char path_arg[] = "/nonexistent";
    for (uint32_t img_id : {0x1801u, 0x010Fu, 0xFF00u}) {
        EXPECT_EQ(pta20_img_auth(img_id, 0, path_arg, 0), -1);
        EXPECT_EQ(pta20_img_upload(img_id, 0, path_arg, 0), -1);
        EXPECT_EQ(pta20_img_dump(img_id, IMG_SRC_FILE, path_arg, 0), -1);
        EXPECT_EQ(pta20_img_delete(img_id, 0), -1);
        EXPECT_EQ(pta20_img_update(img_id, 0, path_arg, 0), -1);
    }
    EXPECT_EQ(pta20_img_dump(0x0103, 0, nullptr, 0), -1);
    EXPECT_EQ(pta20_img_delete(0x0003, 0), -1);
    EXPECT_EQ(pta20_img_delete(0x0100, 0), -1);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 0u);

    // Golden slot from a caller's file: the session opens, the dump refuses the region slot.
    EXPECT_EQ(pta20_img_dump(0x0103, IMG_SRC_FILE, path_arg, 0), -1);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 1u);
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    EXPECT_EQ(pta20_img_delete(0x0001, 0), 0);
    ASSERT_EQ(karst_emu_journal_count(), 1u);
    EXPECT_EQ(journal()[0].command, 10u);
}

TEST_F(ImageApiTest, BusySessionFailsEveryCall) {
    ASSERT_EQ(pta_open_session(), 0u);
    char text[] = "x";
    capture_stdout([&] {
        EXPECT_EQ(pta20_img_auth(0x0101, IMG_SRC_BUFFER, text, 1), -1);
        EXPECT_EQ(pta20_img_upload(0x0101, IMG_SRC_BUFFER, text, 1), -1);
        EXPECT_EQ(pta20_img_dump(0x0102, 0, nullptr, 0), -1);
        EXPECT_EQ(pta20_img_delete(0x0102, 0), -1);
        EXPECT_EQ(pta20_img_update(0x0101, 0, nullptr, 0), -1);
    });
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    pta_close_session();
}

// The active BMC image is the two eMMC regions, one behind the other.
TEST_F(ImageApiTest, ActiveBmcDumpCopiesTheTwoRegions) {
    const std::string mmc = path("/dev/mmcblk0");
    const int fd = open(mmc.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const struct {
        off_t device;
        const char *mark;
    } marks[] = {{0x3FFFF0, "BEFORE-REGION-10"}, {0x400000, "REGION-10-START"},
                 {0xA2FFF0, "REGION-10-ENDS!!"}, {0xA30000, "BETWEEN-REGIONS"},
                 {0xC00000, "REGION-11-START"},  {0x45CFFF0, "REGION-11-ENDS!!"}};
    for (const auto &m : marks) {
        ASSERT_EQ(pwrite(fd, m.mark, std::strlen(m.mark), m.device),
                  static_cast<ssize_t>(std::strlen(m.mark)));
    }
    close(fd);
    write_file(path("/tmp/fw_image"), "stale");
    chmod(path("/tmp/fw_image").c_str(), 0444);

    std::string out = capture_stdout([] { EXPECT_EQ(pta20_img_dump(0x0000, 0x7, nullptr, 5), 0); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for the active BMC dump";
    const std::string image = read_file(path("/tmp/fw_image"));
    ASSERT_EQ(image.size(), 0x4000000u);
    EXPECT_EQ(image.compare(0, 15, "REGION-10-START"), 0);
    EXPECT_EQ(image.compare(0x62FFF0, 16, "REGION-10-ENDS!!"), 0);
    EXPECT_EQ(image.compare(0x630000, 15, "REGION-11-START"), 0);
    EXPECT_EQ(image.compare(0x3FFFFF0, 16, "REGION-11-ENDS!!"), 0);
    EXPECT_EQ(image.find("BEFORE-REGION-10"), std::string::npos);
    EXPECT_EQ(image.find("BETWEEN-REGIONS"), std::string::npos);
    struct stat st {};
    ASSERT_EQ(stat(path("/tmp/fw_image").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0444u);

    // Without the eMMC, dd leaves no file: both error lines, -1.
    unlink(mmc.c_str());
    out = capture_stdout([] { EXPECT_EQ(pta20_img_dump(0x0000, 0, nullptr, 0), -1); });
    EXPECT_TRUE(matches(out, ERROR + "BMC active FW failed to dump!\\n" + ERROR +
                                 "Failed to dump active BMC FW image!\\n"))
        << out;
}

TEST_F(ImageApiTest, UpdatedBmcIsWhatTheActiveDumpReturns) {
    write_file(path("/nv1/bmc_staging.bin"), image_bytes(0x700000, 9)); // crosses region 10
    ASSERT_EQ(pta20_img_update(0x0001, 0, nullptr, 0), 0);
    ASSERT_EQ(pta20_img_dump(0x0000, 0, nullptr, 0), 0);
    const std::string image = read_file(path("/tmp/fw_image"));
    ASSERT_EQ(image.size(), 0x4000000u);
    EXPECT_EQ(image.substr(0, 0x700000), image_bytes(0x700000, 9));
    EXPECT_EQ(image.find_first_not_of('\0', 0x700000), std::string::npos) << "the rest erased";
}

} // namespace
