// The argument block and the dispatcher: which routine a number reaches, with which words, and
// what reaches the secure world.
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

extern "C" int karst_c99_probe(void);

namespace {

class DispatcherTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_EQ(pta_open_session(), 0u);
    }
    void TearDown() override {
        pta_close_session();
        KarstTest::TearDown();
    }

    // Runs a number with the text in word 4; returns the result and what it printed.
    std::pair<int, std::string> run(uint32_t number, char *text) {
        uintptr_t block[PTA20_ARGS_WORDS] = {};
        pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text), 0, 0);
        int rc = 0;
        std::string out = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
        return {rc, out};
    }
};

TEST(ArgumentBlock, FourthAndFifthArgumentsGoCrosswise) {
    uintptr_t block[PTA20_ARGS_WORDS] = {};
    pta20_args(block, 1, 2, 3, 4, 5, 6);
    const uintptr_t expected[PTA20_ARGS_WORDS] = {1, 2, 3, 5, 4, 6};
    EXPECT_EQ(std::memcmp(block, expected, sizeof block), 0);
    EXPECT_EQ(sizeof block[0], sizeof(void *));
    EXPECT_EQ(pta_invoke_test_cmd(0, 0), -1);
    EXPECT_EQ(pta_invoke_test_cmd(7, 9), -1);
    EXPECT_EQ(karst_c99_probe(), 5 + 34 - 1) << "the header as C99 sees it";
}

TEST_F(DispatcherTest, NumbersWithoutARoutineAnswerMinusOneSilently) {
    char text[] = "bootcmd";
    for (uint32_t number : {19u, 20u, 21u, 23u, 25u, 28u, 29u, 35u, 0x80000000u, 0xFFFFFFFFu}) {
        uintptr_t block[PTA20_ARGS_WORDS] = {7, 7, 0, 7, reinterpret_cast<uintptr_t>(text), 7};
        uintptr_t before[PTA20_ARGS_WORDS];
        std::memcpy(before, block, sizeof block);
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
        EXPECT_EQ(rc, -1) << number;
        EXPECT_EQ(out, "") << number;
        EXPECT_EQ(std::memcmp(block, before, sizeof block), 0) << number;
    }
    EXPECT_EQ(pta_invoke_cmd_default(3, 0, 0), -1);
    EXPECT_EQ(pta_invoke_cmd_default(16, 0, 0), -1);
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(DispatcherTest, NumberFourPrintsTheVariable) {
    char text[] = "bootcmd";
    const auto [rc, out] = run(PTA_DALU_CMD_UBOOTENV_GET, text);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "bootcmd=bootm 20080000\n");

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
struct SplitCase {
    const char *text;
    const char *name;  // null: refused
    const char *value; // what the application receives ("" for an empty or absent value)
};

void PrintTo(const SplitCase &c, std::ostream *os) {
    *os << '"' << c.text << '"';
}

class SplitTest : public DispatcherTest, public ::testing::WithParamInterface<SplitCase> {};

TEST_P(SplitTest, NumberFiveSplitsNameAndValue) {
    const SplitCase &c = GetParam();
    std::string text = c.text;
    const auto [rc, out] = run(PTA_DALU_CMD_UBOOTENV_SET, text.data());
    const auto records = journal();
    if (c.name == nullptr) {
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(std::regex_match(
            out, std::regex(R"(\[E:\w+:\d+\] Argument must be in name=value format\n)")))
            << out;
        EXPECT_TRUE(records.empty());
        return;
    }
    EXPECT_EQ(rc, 0) << out;
    ASSERT_EQ(records.size(), 1u);
    const karst_emu_invoke_record &r = records[0];
    EXPECT_EQ(r.command, 5u);
    EXPECT_EQ(r.param_types, 0xCCu);
    EXPECT_EQ(r.params[1].flags, TEEC_MEM_INPUT);
    EXPECT_STREQ(reinterpret_cast<const char *>(r.params[0].input), c.name);
    ASSERT_EQ(r.params[1].input_kept, 32768u);
    const size_t vlen = std::strlen(c.value);
    EXPECT_EQ(std::memcmp(r.params[1].input, c.value, vlen), 0);
    for (size_t i = vlen; i < 32768; ++i) {
        ASSERT_EQ(r.params[1].input[i], 0) << "byte " << i << " after the value";
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, SplitTest,
                         ::testing::Values(SplitCase{"a=b", "a", "b"},
                                           SplitCase{"a=b=c", "a", "b=c"},
                                           SplitCase{"a==", "a", "="}, SplitCase{"a=", "a", ""},
                                           SplitCase{"=a", "a", ""}, SplitCase{"==a=b", "a", "b"},
                                           SplitCase{"===", nullptr, nullptr},
                                           SplitCase{"abc", nullptr, nullptr}),
                         [](const auto &param) { return "text" + std::to_string(param.index); });

TEST_F(DispatcherTest, NumberFiveSetsWhatNumberFourReads) {
    char set[] = "fdt_addr=0x83000000";
    ASSERT_EQ(run(PTA_DALU_CMD_UBOOTENV_SET, set).first, 0);
    char get[] = "fdt_addr";
    EXPECT_EQ(run(PTA_DALU_CMD_UBOOTENV_GET, get).second, "fdt_addr=0x83000000\n");
}

} // namespace
