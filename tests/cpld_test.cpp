// CPLD registers through dispatcher numbers 6 and 7, the BIOS flash's address mode and the
// FPGA-ready command.
#include "support/test_env.hpp"

#include <regex>

using namespace karst::test;

namespace {

class CpldTest : public KarstTest {
  protected:
    std::pair<int, std::string> run(uint32_t number, const char *text) {
        std::string copy = text; // the write splits its text in place
        uintptr_t block[PTA20_ARGS_WORDS] = {};
        pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(copy.data()), 0, 0);
        int rc = 0;
        EXPECT_EQ(pta_open_session(), 0u);
        const std::string out = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
        pta_close_session();
        return {rc, out};
    }
};

TEST_F(CpldTest, WriteThenReadBack) {
    auto [rc, out] = run(PTA_DALU_CMD_CPLD_REGW, "0x1A=0xc3");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "Write cpld reg[1a] = c3\n");
    const auto w = journal().back();
    EXPECT_EQ(w.command, 7u);
    EXPECT_EQ(w.param_types, 0xCCu);
    EXPECT_EQ(w.params[0].size, 1024u);
    EXPECT_EQ(w.params[1].size, 32768u);
    EXPECT_EQ(w.params[1].flags, TEEC_MEM_INPUT);
    EXPECT_EQ(w.params[0].input[0], 0x1A);
    EXPECT_EQ(w.params[1].input[0], 0xC3);

    std::tie(rc, out) = run(PTA_DALU_CMD_CPLD_REGR, "0x1A");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "Read CPLD Reg[1A] = C3\n");
    const auto r = journal().back();
    EXPECT_EQ(r.command, 6u);
    EXPECT_EQ(r.params[1].flags, TEEC_MEM_OUTPUT);
    EXPECT_EQ(r.params[0].input[0], 0x1A);
    // Other bases, and register 0 (the version) as the application keeps it.
    EXPECT_EQ(run(PTA_DALU_CMD_CPLD_REGR, "032").second, "Read CPLD Reg[1A] = C3\n");
    EXPECT_EQ(run(PTA_DALU_CMD_CPLD_REGR, "26").second, "Read CPLD Reg[1A] = C3\n");
    EXPECT_EQ(run(PTA_DALU_CMD_CPLD_REGR, "zero").second, "Read CPLD Reg[00] = 12\n");
}

TEST_F(CpldTest, WriteSplitsAndCutsToEightBits) {
    EXPECT_EQ(run(PTA_DALU_CMD_CPLD_REGW, "0x1ff=0x100").second, "Write cpld reg[ff] = 00\n");
    EXPECT_EQ(journal().back().params[0].input[0], 0xFF);
    EXPECT_EQ(journal().back().params[1].input[0], 0x00);
    EXPECT_EQ(run(PTA_DALU_CMD_CPLD_REGW, "==5=7=").second, "Write cpld reg[05] = 07\n");
    const size_t sent = karst_emu_journal_count();
    for (const char *text : {"0x10", "0x10=", "===", ""}) {
        const auto [rc, out] = run(PTA_DALU_CMD_CPLD_REGW, text);
        EXPECT_EQ(rc, -1) << text;
        EXPECT_TRUE(std::regex_match(
            out, std::regex(R"(\[E:pta_invoke_cpld_regw:\d+\] Argument must be in name=value )"
                            R"(format\n)")))
            << out;
    }
    EXPECT_EQ(karst_emu_journal_count(), sent);
}

TEST_F(CpldTest, FailuresPrintTheirMessageAndNoValue) {
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    auto [rc, out] = run(PTA_DALU_CMD_CPLD_REGR, "1");
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[E:pta_invoke_cpld_regr:\d+\] )"
                                                 R"(TEEC_InvokeCommand failed with code )"
                                                 R"(0xffff0000 origin 0x4\n)")))
        << out;
    // The write line comes before the secure world is asked.
    karst_emu_fail_nth(KARST_EMU_REGISTER, 2, TEEC_ERROR_OUT_OF_MEMORY);
    std::tie(rc, out) = run(PTA_DALU_CMD_CPLD_REGW, "1=2");
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(Write cpld reg\[01\] = 02\n)"
                                                 R"(\[E:pta_invoke_cpld_regw:\d+\] )"
                                                 R"(TEEC_RegisterSharedMemory failed with code )"
                                                 R"(0xffff000c\n)")))
        << out;
    ASSERT_EQ(pta_open_session(), 0u);
    EXPECT_EQ(pta_invoke_cpld_regr(6, nullptr), -1);
    capture_stdout([] { EXPECT_EQ(pta_invoke_cpld_regw(7, nullptr), -1); });
    pta_close_session();
}

TEST_F(CpldTest, BiosAddressModeWritesTheFlashOpcodeRegister) {
    const struct {
        uint32_t enable;
        uint8_t reg;
        const char *line;
    } cases[] = {{1, 0xB7, "Write cpld reg[b7] = 00\n"},
                 {0x100, 0xB7, "Write cpld reg[b7] = 00\n"},
                 {0, 0xE9, "Write cpld reg[e9] = 00\n"}};
    for (const auto &c : cases) {
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = pta20_bios_set4Byte(c.enable); });
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(out, c.line);
        const auto r = journal().back();
        EXPECT_EQ(r.command, 7u);
        EXPECT_EQ(r.params[0].input[0], c.reg);
        EXPECT_EQ(r.params[1].input[0], 0);
    }
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    capture_stdout([] { EXPECT_EQ(pta20_bios_set4Byte(1), -1); });
}

TEST_F(CpldTest, FpgaReadyIsACommandWithoutAnOperation) {
    EXPECT_EQ(pta20_fpga_ready(), 0);
    const auto r = journal().back();
    EXPECT_EQ(r.command, 25u);
    EXPECT_EQ(r.param_types, 0u);

    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_ACCESS_DENIED);
    std::string out = capture_stdout([] { EXPECT_EQ(pta20_fpga_ready(), -1); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[E:pta_invoke_fpga_ready:\d+\] )"
                                                 R"(TEEC_InvokeCommand failed with code )"
                                                 R"(0xffff0001 origin 0x4\n)")))
        << out;
    ASSERT_EQ(pta_open_session(), 0u);
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_ACCESS_DENIED);
    capture_stdout(
        [] { EXPECT_EQ(static_cast<uint32_t>(pta_invoke_fpga_ready(25)), 0xFFFF0001u); });
    // While this session is open, the exported call is refused without invoking anything.
    const size_t invokes = karst_emu_calls(KARST_EMU_INVOKE);
    capture_stdout([] { EXPECT_EQ(pta20_fpga_ready(), -1); });
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), invokes);
    pta_close_session();
}

} // namespace
