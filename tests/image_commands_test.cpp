// The image command routines behind dispatcher numbers 0 to 3 and 10: what reaches the secure
// world, what comes back, and that mappings and registrations never outlive a command.
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

class ImageCommandTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        karst_emu_program_rate(0);
        ASSERT_EQ(pta_open_session(), 0u);
    }
    void TearDown() override {
        pta_close_session();
        KarstTest::TearDown();
    }

    int run(uint32_t number, uint32_t img_id, uint32_t flags, const void *arg, uint32_t size,
            std::string *out = nullptr) {
        uintptr_t block[PTA20_ARGS_WORDS];
        pta20_args(block, img_id, flags, 0, reinterpret_cast<uintptr_t>(arg), size, 0);
        int rc = 0;
        const std::string printed = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
        if (out != nullptr) {
            *out = printed;
        }
        return rc;
    }
};

TEST_F(ImageCommandTest, CallerBufferIsSentAsItIs) {
    const std::string image = image_bytes(300);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH, 0x0201, IMG_SRC_BUFFER | 0x40, image.data(), 300), 0);
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    const auto &r = records[0];
    EXPECT_EQ(r.command, 0u);
    EXPECT_EQ(r.param_types, 0xC1u);
    EXPECT_EQ(r.params[0].a, 0x0201u);
    EXPECT_EQ(r.params[0].b, 0x41u);
    EXPECT_EQ(r.params[1].size, 300u);
    EXPECT_EQ(r.params[1].flags, TEEC_MEM_INPUT);
    ASSERT_EQ(r.params[1].input_kept, 300u);
    EXPECT_EQ(std::memcmp(r.params[1].input, image.data(), 300), 0);
    EXPECT_EQ(image, image_bytes(300)) << "the caller's buffer is left alone";
}

TEST_F(ImageCommandTest, SlotFileIsMappedForTheCommandOnlyAlsoWhenItFails) {
    const std::string file = path("/nv1/cpld_staging.bin");
    write_file(file, image_bytes(0x8000));
    EXPECT_EQ(run(PTA_DALU_CMD_FW_UPDATE, 0x0201, 0, nullptr, 0), 0);
    EXPECT_EQ(mappings_of(file), 0);
    ASSERT_EQ(journal().size(), 1u);
    EXPECT_EQ(journal()[0].params[1].size, 0x8000u);

    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    std::string out;
    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH, 0x0201, 0, nullptr, 0, &out), -1);
    EXPECT_EQ(mappings_of(file), 0);
    EXPECT_TRUE(matches(out, R"(\[I:pta_mmap_img:\d+\] mapping .*\n)"
                             R"(\[E:pta_invoke_fw_auth:\d+\] TEEC_InvokeCommand failed with code )"
                             R"(0xffff0000 origin 0x4\n)"))
        << out;

    karst_emu_fail_nth(KARST_EMU_REGISTER, 1, TEEC_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_UPLOAD, 0x0201, 0, nullptr, 0, &out), -1);
    EXPECT_TRUE(matches(out, R"(\[I:pta_mmap_img:\d+\] mapping .*\n)"
                             R"(\[E:pta_invoke_fw_upload:\d+\] TEEC_RegisterSharedMemory failed )"
                             R"(with code 0xffff000c\n)"))
        << out;
    EXPECT_EQ(mappings_of(file), 0);
}

TEST_F(ImageCommandTest, UploadAndUpdateHandBackTheSecureWorldsCode) {
    write_file(path("/nv1/bios_staging.bin"), image_bytes(4096));
    for (uint32_t number : {PTA_DALU_CMD_FW_UPLOAD, PTA_DALU_CMD_FW_UPDATE}) {
        karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
        EXPECT_EQ(run(number, 0x0101, 0, nullptr, 0), static_cast<int>(0xFFFF0000)) << number;
        karst_emu_fail_nth(KARST_EMU_INVOKE, 1, 0xFFFFFFFE);
        EXPECT_EQ(run(number, 0x0101, 0, nullptr, 0), -2) << number;
    }
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH, 0x0101, 0, nullptr, 0), -1);
    // Local failures are -1 for every one of them: no image, a type out of range.
    for (uint32_t number : {0u, 1u, 2u}) {
        EXPECT_EQ(run(number, 0x0102, 0, nullptr, 0), -1) << "no backup file yet";
        EXPECT_EQ(run(number, 0x1801, IMG_SRC_BUFFER, "x", 1), -1) << "type 24";
    }
}

TEST_F(ImageCommandTest, UploadIsStoredAndDeleteClearsIt) {
    const std::string image = image_bytes(0x12345);
    write_file(path("/nv1/bmc_staging.bin"), image);
    EXPECT_EQ(karst_emu_image_copy(0x0001, nullptr, nullptr), -1);
    ASSERT_EQ(run(PTA_DALU_CMD_FW_UPLOAD, 0x0001, 0, nullptr, 0), 0);
    uint64_t size = 0, digest = 0;
    ASSERT_EQ(karst_emu_image_copy(0x0001, &size, &digest), 0);
    EXPECT_EQ(size, image.size());
    EXPECT_EQ(digest, karst_emu_image_digest(image.data(), image.size()));
    EXPECT_NE(digest, karst_emu_image_digest(image.data(), image.size() - 1));
    ASSERT_EQ(run(PTA_DALU_CMD_FW_DELETE, 0x0001, 0, nullptr, 0), 0);
    EXPECT_EQ(karst_emu_image_copy(0x0001, nullptr, nullptr), -1);
}

TEST_F(ImageCommandTest, DumpWritesTheDevicesImageIntoTheSlotFile) {
    std::string out;
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0202, 0, nullptr, 0, &out), 0);
    EXPECT_EQ(out, "");
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].command, 3u);
    EXPECT_EQ(records[0].param_types, 0xC1u);
    EXPECT_EQ(records[0].params[1].size, 0x40000u);
    EXPECT_EQ(records[0].params[1].flags, TEEC_MEM_OUTPUT);
    const std::string dumped = read_file(path("/nv1/cpld_backup.bin"));
    ASSERT_EQ(dumped.size(), 0x40000u);
    EXPECT_EQ(dumped.compare(0, 4, "\x53\x00\x00\x02", 4), 0) << "the factory CPLD image";
    EXPECT_EQ(static_cast<uint8_t>(dumped.back()), 0xFF) << "erased flash";

    // Into a caller's file, with a length of the caller's.
    const std::string own = path("/tmp/my dump.bin");
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0C04, IMG_SRC_FILE, own.c_str(), 0x1000), 0);
    EXPECT_EQ(read_file(own).size(), 0x1000u);
    EXPECT_EQ(journal().back().params[1].size, 0x1000u);
}

TEST_F(ImageCommandTest, FailedDumpLeavesTheFileAsItWas) {
    write_file(path("/nv1/bios_backup.bin"), "previous");
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_BUSY);
    std::string out;
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, 0, nullptr, 0x100, &out),
              static_cast<int>(TEEC_ERROR_BUSY));
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_fw_dump:\d+\] TEEC_InvokeCommand failed with code )"
                             R"(0xffff000d origin 0x4\n)"))
        << out;
    EXPECT_EQ(read_file(path("/nv1/bios_backup.bin")), "previous");

    const std::string unwritable = path("/no/such/dir/dump.bin");
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, IMG_SRC_FILE, unwritable.c_str(), 0x100, &out), -1);
    EXPECT_EQ(out, "Failed to open file:" + unwritable + "\n");
}

TEST_F(ImageCommandTest, DumpRefusesWhatItCannotDumpBeforeTheSecureWorld) {
    const uint32_t refused[] = {0x0103, 0x0002, 0x0302, 0x1502, 0x1602, 0x1702, 0x0105, 0x010F};
    for (uint32_t img_id : refused) {
        EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, img_id, 0, nullptr, 0), -1) << std::hex << img_id;
    }
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, IMG_SRC_FILE, nullptr, 0), -1);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, IMG_SRC_BUFFER, "x", 0), -1);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, IMG_SRC_EXTENDED, nullptr, 0), -1);
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(ImageCommandTest, DeleteOnlyStagingAndBackupOfBmcBiosCpld) {
    for (uint32_t img_id : {0x0001u, 0x0002u, 0x0101u, 0x0102u, 0x0201u, 0x0202u}) {
        EXPECT_EQ(run(PTA_DALU_CMD_FW_DELETE, img_id, 0x7, nullptr, 0), 0) << std::hex << img_id;
        const auto r = journal().back();
        EXPECT_EQ(r.command, 10u);
        EXPECT_EQ(r.param_types, 0x01u);
        EXPECT_EQ(r.params[0].a, img_id);
        EXPECT_EQ(r.params[0].b, 0x7u);
    }
    const size_t sent = karst_emu_journal_count();
    for (uint32_t img_id : {0x0004u, 0x0003u, 0x0000u, 0x0901u, 0x0301u}) {
        EXPECT_EQ(run(PTA_DALU_CMD_FW_DELETE, img_id, 0, nullptr, 0), -1) << std::hex << img_id;
    }
    EXPECT_EQ(karst_emu_journal_count(), sent);
}

} // namespace
