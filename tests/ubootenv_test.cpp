// U-Boot environment calls from end to end: limits, results, what reaches the application, and
// the session held by this process.
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

class UbootEnvTest : public KarstTest {};

TEST_F(UbootEnvTest, ValueSetIsReadBackByAnotherProcess) {
    ASSERT_EQ(pta20_ubootenv_set("ethaddr", "02:00:00:00:00:01"), 0);
    const int child = in_child([] {
        char value[64] = {};
        return pta20_ubootenv_get("ethaddr", value, sizeof value) == 0 &&
                       std::strcmp(value, "02:00:00:00:00:01") == 0
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child, 0);
}

TEST_F(UbootEnvTest, NameAndValueLimits) {
    const std::string longest_name(1023, 'n');
    EXPECT_EQ(pta20_ubootenv_set(longest_name.c_str(), "v"), 0);
    char value[8] = {};
    EXPECT_EQ(pta20_ubootenv_get(longest_name.c_str(), value, sizeof value), 0);
    EXPECT_STREQ(value, "v");

    const std::string too_long(1024, 'n');
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_ubootenv_set(too_long.c_str(), "v"), -1);
        EXPECT_EQ(pta20_ubootenv_get(too_long.c_str(), value, sizeof value), -1);
    });
    EXPECT_TRUE(matches(
        out,
        R"((\[E:_pta_invoke_ubootenv_(set|get):\d+\] Environment variable name too long\n){2})"));

    const std::string longest_value(32767, 'v');
    EXPECT_EQ(pta20_ubootenv_set("big", longest_value.c_str()), 0);
    std::string back(32768, '\0');
    EXPECT_EQ(pta20_ubootenv_get("big", back.data(), 0), 0);
    EXPECT_EQ(std::strlen(back.c_str()), 32767u);

    const size_t invokes = karst_emu_journal_count();
    const std::string too_big(32768, 'v');
    out = capture_stdout([&] { EXPECT_EQ(pta20_ubootenv_set("big", too_big.c_str()), -1); });
    EXPECT_TRUE(
        matches(out, R"(\[E:_pta_invoke_ubootenv_set:\d+\] Environment variable name too long\n)"));
    EXPECT_EQ(karst_emu_journal_count(), invokes) << "nothing may reach the application";
}

TEST_F(UbootEnvTest, ShortCallerBufferIsRefusedAndLeftUntouched) {
    ASSERT_EQ(pta20_ubootenv_set("serverip", "10.100.200.254:8080"), 0); // 19 characters
    char buf[32];
    std::memset(buf, '#', sizeof buf);
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_ubootenv_get("serverip", buf, 16), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_ubootenv_get:\d+\] Buffer has less space \(16\) than actual data size \(20\)\n)"));
    for (char c : buf) {
        ASSERT_EQ(c, '#');
    }
    EXPECT_EQ(pta20_ubootenv_get("serverip", buf, 20), 0);
    EXPECT_STREQ(buf, "10.100.200.254:8080");
}

TEST_F(UbootEnvTest, NullValueSendsAnEmptyValueAndClearsTheVariable) {
    ASSERT_EQ(pta20_ubootenv_set("gone", "soon"), 0);
    karst_emu_journal_clear();
    ASSERT_EQ(pta20_ubootenv_set("gone", nullptr), 0);
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    ASSERT_EQ(records[0].params[1].input_kept, 32768u);
    for (size_t i = 0; i < 32768; ++i) {
        ASSERT_EQ(records[0].params[1].input[i], 0);
    }
    char value[8];
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_ubootenv_get("gone", value, 8), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_ubootenv_get:\d+\] TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n)"));
}

TEST_F(UbootEnvTest, InvalidArgumentsAreRefusedBeforeAnySession) {
    char buf[8];
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_ubootenv_get(nullptr, buf, 8), -1);
        EXPECT_EQ(pta20_ubootenv_get("bootcmd", nullptr, 8), -1);
        EXPECT_EQ(pta20_ubootenv_set(nullptr, "x"), -1);
    });
    EXPECT_TRUE(matches(out, R"(Invalid arguments: name = \(null\), data = 0x[0-9a-f]+\n)"
                             R"(Invalid arguments: name = bootcmd, data = \(nil\)\n)"
                             R"(Invalid arguments: name = \(null\)\n)"));
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);
}

TEST_F(UbootEnvTest, CallsFailWhileTheProcessHoldsTheSession) {
    ASSERT_EQ(pta_open_session(), 0u);
    char buf[8];
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_ubootenv_get("bootcmd", buf, 8), -1);
        EXPECT_EQ(pta20_ubootenv_set("bootcmd", "x"), -1);
    });
    EXPECT_TRUE(matches(out, R"((\[I:pta_open_session:\d+\] pta_open_session: TEE is busy){2})"));
    pta_close_session();
}

} // namespace
