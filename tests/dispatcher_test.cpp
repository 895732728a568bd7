// SPDX-License-Identifier: Apache-2.0
// The argument block and the dispatcher: which routine a number reaches, with which words, and
// what reaches the secure world.
#include "support/test_env.hpp"

#include <cstring>

using namespace karst::test;

extern "C" int karst_c99_probe(void);

namespace {

using DispatcherTest = KarstTest;

// Runs a number with the text in word 4 inside a session; returns the result and what it printed.
std::pair<int, std::string> run(uint32_t number, const std::string &word) {
    std::string text = word;
    uintptr_t block[PTA20_ARGS_WORDS] = {};
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text.data()), 0, 0);
    int rc = 0;
    EXPECT_EQ(pta_open_session(), 0u);
    std::string out = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
    pta_close_session();
    return {rc, out};
}

TEST(ArgumentBlock, FourthAndFifthArgumentsGoCrosswise) {
    uintptr_t block[PTA20_ARGS_WORDS] = {};
    pta20_args(block, 1, 2, 3, 4, 5, 6);
    const uintptr_t expected[PTA20_ARGS_WORDS] = {1, 2, 3, 5, 4, 6};
    EXPECT_EQ(std::memcmp(block, expected, sizeof block), 0);
    EXPECT_EQ(pta_invoke_test_cmd(0, 0), -1);
    EXPECT_EQ(pta_invoke_test_cmd(7, 9), -1);
    EXPECT_EQ(karst_c99_probe(), 5 + 34 - 1) << "the header as C99 sees it";
}

TEST_F(DispatcherTest, NumbersWithoutARoutineAnswerMinusOneSilentlyAndTouchNothing) {
    ASSERT_EQ(pta_open_session(), 0u);
    char text[] = "bootcmd";
    for (uint32_t number : {19u, 20u, 21u, 23u, 25u, 28u, 29u, 35u, 0x80000000u, 0xFFFFFFFFu}) {
        uintptr_t block[PTA20_ARGS_WORDS] = {7, 7, 0, 7, reinterpret_cast<uintptr_t>(text), 7};
        const std::vector<uintptr_t> before(block, block + PTA20_ARGS_WORDS);
        int rc = 0;
        EXPECT_EQ(capture_stdout([&] { rc = pta_invoke_cmd(number, block); }), "") << number;
        EXPECT_EQ(rc, -1) << number;
        EXPECT_EQ(std::vector<uintptr_t>(block, block + PTA20_ARGS_WORDS), before) << number;
    }
    EXPECT_EQ(pta_invoke_cmd_default(3, 0, 0), -1);
    EXPECT_EQ(pta_invoke_cmd_default(16, 0, 0), -1);
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    pta_close_session();
}

TEST_F(DispatcherTest, NumberFourPrintsTheVariable) {
    EXPECT_EQ(run(PTA_DALU_CMD_UBOOTENV_GET, "bootcmd"),
              std::pair(0, std::string("bootcmd=bootm 20080000\n")));
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    const karst_emu_invoke_record &r = records[0];
    EXPECT_EQ(r.command, 4u);
    EXPECT_EQ(r.param_types, 0xCCu);
    EXPECT_EQ(r.params[0].size, 1024u);
    EXPECT_EQ(r.params[0].flags, TEEC_MEM_INPUT);
    ASSERT_EQ(r.params[0].input_kept, 1024u);
    EXPECT_EQ(std::memcmp(r.params[0].input, "bootcmd", 8), 0);
    EXPECT_EQ(r.params[1].size, 32768u);
    EXPECT_EQ(r.params[1].flags, TEEC_MEM_OUTPUT);
}

// What number 5 makes of a name=value text: the name and value that reach the application, or
// the format message and no invoke.
TEST_F(DispatcherTest, NumberFiveSplitsNameAndValue) {
    const struct {
        const char *text, *name, *value; // name null: refused
    } cases[] = {{"a=b", "a", "b"},    {"a=b=c", "a", "b=c"}, {"a==", "a", "="},
                 {"a=", "a", ""},      {"=a", "a", ""},       {"==a=b", "a", "b"},
                 {"===", nullptr, ""}, {"abc", nullptr, ""}};
    for (const auto &c : cases) {
        karst_emu_journal_clear();
        const auto [rc, out] = run(PTA_DALU_CMD_UBOOTENV_SET, c.text);
        const auto records = journal();
        EXPECT_EQ(rc, c.name ? 0 : -1) << c.text << out;
        EXPECT_EQ(records.size(), c.name ? 1u : 0u) << c.text;
        if (c.name == nullptr || records.size() != 1) {
            EXPECT_TRUE(matches(out, R"(\[E:\w+:\d+\] Argument must be in name=value format\n)"));
            continue;
        }
        const karst_emu_invoke_record &r = records[0];
        EXPECT_EQ(r.command, 5u);
        EXPECT_EQ(r.param_types, 0xCCu);
        EXPECT_EQ(r.params[1].flags, TEEC_MEM_INPUT);
        EXPECT_STREQ(reinterpret_cast<const char *>(r.params[0].input), c.name);
        // The value, then zeros to the end of the buffer.
        std::string expected(32768, '\0');
        expected.replace(0, std::strlen(c.value), c.value);
        EXPECT_EQ(
            std::string(reinterpret_cast<const char *>(r.params[1].input), r.params[1].input_kept),
            expected)
            << c.text;
    }
}

} // namespace
