// Provisioning query: yes, no and failure, through each layer.
#include "attestation/att_support.hpp"

#include <cstring>

using namespace karst::test;

namespace {

class ProvQueryTest : public KarstTest {};

TEST_F(ProvQueryTest, YesNoAndFailure) {
    std::string out = capture_stdout([] {
        EXPECT_EQ(pta20_prov_query(0), 0);  // the device key
        EXPECT_EQ(pta20_prov_query(1), 0);  // the factory chain
        EXPECT_EQ(pta20_prov_query(2), -1); // no certificate replaced yet
        EXPECT_EQ(pta20_prov_query(255), -1);
    });
    EXPECT_EQ(out, "") << "a no is silent";
    const auto records = journal();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].command, 22u);
    EXPECT_EQ(records[0].param_types, 0x00C1u);
    EXPECT_EQ(records[3].params[0].a, 255u);
    EXPECT_EQ(records[3].params[0].b, 0u);
    EXPECT_EQ(records[3].params[1].size, 64u);
    EXPECT_EQ(records[3].params[1].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));

    const uint8_t nothing = 0;
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, &nothing, 0); // success, no status byte
    EXPECT_EQ(pta20_prov_query(0), -1) << "an answer without a status byte is no";
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, nullptr, 0);

    out = capture_stdout([] { EXPECT_EQ(pta20_prov_query(256), -1); });
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_prov_query:\d+\] TEEC_InvokeCommand failed )"
                             R"(with code 0xffff0006 origin 0x4\n)"));
}

TEST_F(ProvQueryTest, ACallersBufferKeepsTheAnswer) {
    ASSERT_EQ(pta_open_session(), 0u);
    uint8_t status[16];
    std::memset(status, 0xEE, sizeof status);
    EXPECT_EQ(pta_invoke_prov_query(22, 7, status, sizeof status), -1);
    EXPECT_EQ(status[0], 1) << "the answer no";
    EXPECT_EQ(status[1], 0) << "cleared before the command";
    EXPECT_EQ(journal().back().params[1].size, 16u);
    EXPECT_EQ(pta_invoke_prov_query(22, 0, status, sizeof status), 0);
    EXPECT_EQ(status[0], 0);

    std::string out = capture_stdout([&] {
        EXPECT_EQ(_pta_invoke_prov_query(22, 0, nullptr, 16), -1);
        EXPECT_EQ(_pta_invoke_prov_query(22, 0, status, 0), -1);
    });
    EXPECT_TRUE(
        matches(out, R"((\[E:_pta_invoke_prov_query:\d+\] Incorrect buf or buf size\n){2})"));

    karst_emu_fail_nth(KARST_EMU_REGISTER, 1, TEEC_ERROR_OUT_OF_MEMORY);
    out = capture_stdout([&] {
        EXPECT_EQ(_pta_invoke_prov_query(22, 0, status, 16),
                  static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY));
    });
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_prov_query:\d+\] TEEC_RegisterSharedMemory )"
                             R"(failed with code 0xffff000c\n)"));
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_BUSY);
    out = capture_stdout([&] { EXPECT_EQ(pta_invoke_prov_query(22, 0, nullptr, 0), -1); });
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_prov_query:\d+\] TEEC_InvokeCommand failed )"
                             R"(with code 0xffff000d origin 0x4\n)"));
    pta_close_session();
}

} // namespace
