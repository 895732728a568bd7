// Secure register reads: what the application is asked, the printed lines, the first value,
// and the limits of the exported call and of the dispatcher entry.
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

class MemregTest : public KarstTest {};

// The emulator's register map (docs/emulator.md).
uint32_t reg(uint32_t address) {
    return address ^ 0x5EC0DE00u;
}

std::string line(uint32_t address) {
    char text[96];
    std::snprintf(text, sizeof text,
                  "Read secure info from register addr:[%08x] --> value:[%08x]\n", address,
                  reg(address));
    return text;
}

TEST_F(MemregTest, ReadsPrintsAndHandsBackTheFirstValue) {
    uint32_t first = 0;
    std::string out = capture_stdout([&] { EXPECT_EQ(pta20_memreg_get("1f0", 3, &first), 0); });
    EXPECT_EQ(out, line(0x1f0) + line(0x1f4) + line(0x1f8));
    EXPECT_EQ(first, reg(0x1f0));

    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].command, 18u);
    EXPECT_EQ(records[0].param_types, 0xCC1u);
    EXPECT_EQ(records[0].params[0].a, 3u);
    EXPECT_EQ(records[0].params[0].b, 0u);
    EXPECT_EQ(records[0].params[1].size, 1024u);
    EXPECT_EQ(records[0].params[1].flags, TEEC_MEM_INPUT);
    const uint8_t le[4] = {0xf0, 0x01, 0x00, 0x00};
    EXPECT_EQ(std::memcmp(records[0].params[1].input, le, 4), 0);
    EXPECT_EQ(records[0].params[2].size, 32768u);
    EXPECT_EQ(records[0].params[2].flags, TEEC_MEM_OUTPUT);

    out = capture_stdout([&] { EXPECT_EQ(pta20_memreg_get("0x1E6E2070", 1, nullptr), 0); });
    EXPECT_EQ(out, line(0x1E6E2070));
}

TEST_F(MemregTest, CountLimits) {
    std::string out = capture_stdout([] { EXPECT_EQ(pta20_memreg_get("0", 64, nullptr), 0); });
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 64);

    out = capture_stdout([] { EXPECT_EQ(pta20_memreg_get("0", 65, nullptr), -1); });
    EXPECT_EQ(out, "invalid read len!\n");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 1u) << "only the first call opened a session";

    // Count 0: no line, and the first word of a zeroed answer.
    uint32_t first = 0xdeadbeef;
    out = capture_stdout([&] { EXPECT_EQ(pta20_memreg_get("100", 0, &first), 0); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(first, 0u);
}

TEST_F(MemregTest, DispatcherEntryTakesWordsFourAndThree) {
    char text[] = "ffffffc";
    auto run = [&](uintptr_t count) {
        uintptr_t block[PTA20_ARGS_WORDS] = {};
        pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text), count, 0);
        int rc = 0;
        EXPECT_EQ(pta_open_session(), 0u);
        const std::string out =
            capture_stdout([&] { rc = pta_invoke_cmd(PTA_DALU_CMD_MEMREG_GET, block); });
        pta_close_session();
        return std::make_pair(rc, out);
    };
    auto [rc, out] = run(2);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, line(0xffffffc) + line(0x10000000));

    std::tie(rc, out) = run(8192);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 8192);

    karst_emu_journal_clear();
    for (const uintptr_t count : {uintptr_t{8193}, uintptr_t{UINT32_MAX}}) {
        std::tie(rc, out) = run(count);
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(std::regex_match(
            out, std::regex(R"(\[E:_pta_invoke_memreg_get:\d+\] invalid read len!\n)")));
    }
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(MemregTest, FailuresPrintNoRegisterAndLeaveOutAlone) {
    uint32_t first = 7;
    std::string out = capture_stdout([&] { EXPECT_EQ(pta20_memreg_get(nullptr, 1, &first), -1); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[E:_pta_invoke_memreg_get:\d+\] Invalid input addr!\n)")));

    out = capture_stdout([&] { EXPECT_EQ(pta20_memreg_get("1f2", 2, &first), -1); });
    EXPECT_TRUE(std::regex_match(
        out,
        std::regex(
            R"(\[E:_pta_invoke_memreg_get:\d+\] TEEC_InvokeCommand failed with code 0xffff0006 origin 0x4\n)")));

    EXPECT_EQ(first, 7u);
}

} // namespace
