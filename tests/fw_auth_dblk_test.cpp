// Authentication with the key data block: the block as the secure world receives it, for types
// with and without a key list, and the routine's own messages.
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <regex>
#include <vector>

using namespace karst::test;

namespace {

class FwAuthDblkTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
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

    // The block of the last invoke, as sent.
    static std::vector<uint8_t> sent_block() {
        const auto r = journal().back();
        return {r.params[0].input, r.params[0].input + r.params[0].input_kept};
    }
};

TEST_F(FwAuthDblkTest, BmcBlockCarriesTheImageWordAndTheKeyNameList) {
    const std::string image = image_bytes(0x2000);
    for (uint32_t number : {31u, 32u, 33u}) {
        EXPECT_EQ(run(number, 0x0001, IMG_SRC_BUFFER, image.data(), 0x2000), 0) << number;
        const auto r = journal().back();
        EXPECT_EQ(r.command, 31u) << number;
        EXPECT_EQ(r.param_types, 0xCCu);
        EXPECT_EQ(r.params[0].size, 65536u);
        EXPECT_EQ(r.params[0].flags, TEEC_MEM_INPUT);
        EXPECT_EQ(r.params[1].size, 0x2000u);
        EXPECT_EQ(r.params[1].flags, TEEC_MEM_INPUT);
    }
    std::vector<uint8_t> blk = sent_block();
    ASSERT_EQ(blk.size(), 65536u);
    EXPECT_EQ(std::memcmp(&blk[4], "DBRT\x01\x01\x00\x00", 8), 0) << "magic, format 01 01 00 00";
    EXPECT_EQ(pta20_datablk_check(blk.data(), 65536), 0) << "the CRC covers the format change";
    uint8_t value[16];
    uint32_t len = sizeof value;
    ASSERT_EQ(pta20_datablk_get(DATABLK_MAGIC_FW, "fw_img", value, &len, blk.data()), 0);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(std::memcmp(value, "\x01\x00\x00\x00", 4), 0);
    len = sizeof value;
    ASSERT_EQ(pta20_datablk_get(DATABLK_MAGIC_FW, "key_name_list", value, &len, blk.data()), 0);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(value[0], 0x02);
    EXPECT_EQ(value[1], 0x00);
    // Nothing else: two pairs, 15 + 20 bytes.
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 15 + 20);
}

TEST_F(FwAuthDblkTest, TypesWithoutAKeyListSendTheImageWordOnly) {
    write_file(path("/nv1/nvbios_staging.bin"), image_bytes(0x1000));
    EXPECT_EQ(run(31, 0x0C01, 0, nullptr, 0), 0);
    std::vector<uint8_t> blk = sent_block();
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 15);
    EXPECT_EQ(journal().back().params[1].size, 0x1000u);
    EXPECT_EQ(mappings_of(path("/nv1/nvbios_staging.bin")), 0);
}

TEST_F(FwAuthDblkTest, RefusalsAndFailures) {
    std::string out;
    for (uint32_t img_id : {0x1601u, 0x1701u, 0xFF01u}) {
        EXPECT_EQ(run(31, img_id, IMG_SRC_BUFFER, "x", 1, &out), -1);
        EXPECT_TRUE(std::regex_match(
            out, std::regex(R"(\[E:pta_invoke_fw_auth_dblk:\d+\] Image name is not available)")))
            << out;
    }
    EXPECT_EQ(run(31, 0x0101, 0, nullptr, 0, &out), -1) << "no staging file";
    // The format byte is changed after creation, so the first store finds the CRC stale (and
    // stores a fresh one).
    const std::string stale = R"(\[E:blk_getenv:\d+\] Data Block bad CRC\n)";
    EXPECT_TRUE(std::regex_match(
        out, std::regex(stale + R"(\[E:pta_invoke_fw_auth_dblk:\d+\] pta_mmap_img )"
                                R"(failed\. Couldn't fetch the image from the )"
                                R"(mentioned payload\.\n)")))
        << out;
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    const std::string bad = unsigned_image_bytes(64);
    EXPECT_EQ(run(31, 0x0101, IMG_SRC_BUFFER, bad.data(), 64, &out), -1);
    EXPECT_NE(out.find("TEEC_InvokeCommand failed with code 0xffff000f origin 0x4"),
              std::string::npos);

    karst_emu_fail_nth(KARST_EMU_REGISTER, 2, TEEC_ERROR_OUT_OF_MEMORY); // the image's
    const std::string good = image_bytes(64);
    EXPECT_EQ(run(31, 0x0101, IMG_SRC_BUFFER, good.data(), 64, &out), -1);
    EXPECT_TRUE(
        std::regex_match(out, std::regex(stale + R"(\[E:pta_invoke_fw_auth_dblk:\d+\] )"
                                                 R"(TEEC_RegisterSharedMemory failed with code )"
                                                 R"(0xffff000c\n)")))
        << out;
}

} // namespace
