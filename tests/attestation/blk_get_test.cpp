// Data block retrieval: what reaches the secure world, the file it leaves, and the refusals.
#include "attestation/att_support.hpp"

#include <filesystem>

using namespace karst::test;

namespace {

class BlkGetTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_EQ(pta_open_session(), 0u);
    }
    void TearDown() override {
        pta_close_session();
        KarstTest::TearDown();
    }
    int get(uint32_t type, uint32_t value, const char *name, std::string &out) {
        int rc = 0;
        out = capture_stdout([&] { rc = pta_invoke_blk_get(16, type, value, name); });
        return rc;
    }
    std::string file() const { return path("/tmp/datablk.bin"); }
};

TEST_F(BlkGetTest, EveryTypeReachesTheSecureWorldAndTheFileIsAlwaysWhole) {
    std::string out;
    for (uint32_t type = 0; type <= 3; ++type) {
        const uint32_t value = 0xFFFFFFF0u + type;
        karst_emu_journal_clear();
        ASSERT_EQ(get(type, value, "device-certs", out), 0);
        EXPECT_EQ(out, "");
        const auto r = journal().at(0);
        EXPECT_EQ(r.command, 16u);
        EXPECT_EQ(r.param_types, 0x0CC1u);
        EXPECT_EQ(r.params[0].a, type);
        EXPECT_EQ(r.params[0].b, value);
        EXPECT_EQ(to_text(r.params[1].input, r.params[1].input_kept), "device-certs");
        EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
        EXPECT_EQ(r.params[2].size, 65536u);
        EXPECT_EQ(r.params[2].flags, static_cast<uint32_t>(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT));

        const std::string answer = "KARST-BLOCK v1\ntype=" + std::to_string(type) +
                                   "\nvalue=" + std::to_string(value) + "\nname=device-certs\n";
        std::string expected = answer;
        expected.resize(65536, '\0');
        EXPECT_EQ(read_file(file()), expected) << "each call overwrites the file, all 65,536 bytes";
    }
    // Through the dispatcher: type in word 0, number in word 1, name in word 4.
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 2, 77, 0, reinterpret_cast<uintptr_t>("viadispatcher"), 0, 0);
    EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_BLK_GET, block), 0);
    EXPECT_EQ(read_file(file()).rfind("KARST-BLOCK v1\ntype=2\nvalue=77\nname=viadispatcher\n", 0),
              0u);
}

TEST_F(BlkGetTest, RefusalsLeaveAnEarlierFileAsItWas) {
    std::string out;
    ASSERT_EQ(get(1, 0, "kept", out), 0);
    const std::string before = read_file(file());
    karst_emu_journal_clear();

    EXPECT_EQ(get(4, 0, "kept", out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] Unsupported datablk type 4\n)"));
    EXPECT_EQ(get(0xFFFFFFFFu, 0, "kept", out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] Unsupported datablk type -1\n)"));
    EXPECT_EQ(get(0, 0, nullptr, out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] Missing datablk name\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u) << "no command for a refused request";

    EXPECT_EQ(get(0, 0, "missing-block", out), static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] TEEC_InvokeCommand failed with )"
                             R"(code 0xffff0008 origin 0x4\n)"));
    for (size_t nth : {1u, 2u}) {
        karst_emu_fail_nth(KARST_EMU_REGISTER, nth, TEEC_ERROR_OUT_OF_MEMORY);
        EXPECT_EQ(get(0, 0, "kept", out), static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY));
        EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] TEEC_RegisterSharedMemory )"
                                 R"(failed with code 0xffff000c\n)"));
    }
    EXPECT_EQ(read_file(file()), before);

    // The file cannot be made: a message without the error prefix; a directory in its place is
    // refused with the reason instead.
    std::filesystem::remove(file());
    std::filesystem::create_directory(file());
    EXPECT_EQ(get(0, 0, "kept", out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_blk_get:\d+\] Refused )" + re_escape(file()) +
                                 ": a directory is in the way\n"));
    std::filesystem::remove(file());
    std::filesystem::remove_all(path("/tmp"));
    EXPECT_EQ(get(0, 0, "kept", out), -1);
    EXPECT_EQ(out, "Failed to open file (" + file() + ")\n");
}

} // namespace
