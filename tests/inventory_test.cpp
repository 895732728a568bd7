// Inventory store commands from end to end: what reaches the application, the file as cache
// and as fallback, the BIOS "Rev" correction, and the dispatcher entries 8 and 9.
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

class InventoryTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        // The file exists, as after any earlier call: the first write only creates it.
        write_file(file(), "");
    }
    std::string file() const { return path("/tmp/inventory.txt"); }

    static int set(const char *name, const std::string &value) {
        return pta20_inventory_set(name, value.c_str(), static_cast<uint32_t>(value.size() + 1));
    }

    // Runs a dispatcher number with the text in word 4.
    static std::pair<int, std::string> dispatch(uint32_t number, char *text) {
        uintptr_t block[PTA20_ARGS_WORDS] = {};
        pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text), 0, 0);
        int rc = 0;
        std::string out;
        EXPECT_EQ(pta_open_session(), 0u);
        out = capture_stdout([&] { rc = pta_invoke_cmd(number, block); });
        pta_close_session();
        return {rc, out};
    }
};

TEST_F(InventoryTest, SetWritesTheFileAndTheApplication) {
    ASSERT_EQ(set("CPLD_VER", "3"), 0);
    EXPECT_EQ(read_file(file()), "CPLD_VER=3\n");
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].command, 9u);
    EXPECT_EQ(records[0].param_types, 0xCCu);
    EXPECT_EQ(records[0].params[0].size, 1024u);
    ASSERT_EQ(records[0].params[1].input_kept, 2u);
    EXPECT_EQ(std::memcmp(records[0].params[1].input, "3", 2), 0);
}

TEST_F(InventoryTest, BiosRevIsCorrectedEverywhere) {
    ASSERT_EQ(set("BIOS_VERSION", "Rev 1.2a"), 0);
    karst_emu_journal_clear();
    char value[64] = {};
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("BIOS_VERSION", value, 64), 0); });
    EXPECT_STREQ(value, "Ver 1.2a");
    EXPECT_EQ(out, "'Rev' is detected, convert it to 'Ver'\n");
    const auto records = journal();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].command, 9u);
    ASSERT_EQ(records[1].params[1].input_kept, 9u);
    EXPECT_EQ(std::memcmp(records[1].params[1].input, "Ver 1.2a", 9), 0);
    EXPECT_EQ(read_file(file()), "BIOS_VERSION=Ver 1.2a\n");

    // Only names with BIOS are corrected.
    ASSERT_EQ(set("CPLD_VERSION", "Rev 7"), 0);
    const std::string quiet =
        capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("CPLD_VERSION", value, 64), 0); });
    EXPECT_STREQ(value, "Rev 7");
    EXPECT_EQ(quiet, "");
}

TEST_F(InventoryTest, SizeZeroReadsHundredBytesAndCachesTheEmptyValue) {
    ASSERT_EQ(set("BMC_VER", "2.10"), 0);
    karst_emu_journal_clear();
    char value[100] = {};
    EXPECT_EQ(pta20_inventory_get("BMC_VER", value, 0), 0);
    EXPECT_STREQ(value, "2.10");
    ASSERT_EQ(journal().size(), 1u);
    EXPECT_EQ(journal()[0].params[1].size, 100u);
    EXPECT_EQ(read_file(file()), "BMC_VER=\n");
}

TEST_F(InventoryTest, ValueLargerThanTheBufferIsRefused) {
    ASSERT_EQ(set("LONG", std::string(119, 'x')), 0);
    char value[100];
    std::memset(value, '#', sizeof value);
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("LONG", value, 100), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_inventory_get:\d+\] Buffer has less space \(100\) than actual data size \(120\)\n)"));
    for (char c : value) {
        ASSERT_EQ(c, '#');
    }
}

TEST_F(InventoryTest, ReadFallsBackToTheFileWhileAnotherProcessHoldsTheSession) {
    write_file(file(), "FRU_SERIAL=SN0042\n");
    SessionHolder holder;
    ASSERT_TRUE(holder.holding());
    char value[32] = {};
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("FRU_SERIAL", value, 32), 0); });
    EXPECT_STREQ(value, "SN0042");
    EXPECT_TRUE(matches(
        out,
        R"((\[E:pta_open_session:\d+\] TEEC_Opensession retries \d time\(s\)\n){3})"
        R"(\[E:pta_open_session:\d+\] TEEC_Opensession failed with code 0xffff000d origin 0x4\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    // Unknown names fail; a write updates the file although the application is out of reach.
    capture_stdout([&] {
        EXPECT_EQ(pta20_inventory_get("NOT_THERE", value, 32), -1);
        EXPECT_EQ(set("FRU_SERIAL", "SN0043"), -1);
    });
    EXPECT_EQ(read_file(file()), "FRU_SERIAL=SN0043\n");
}

TEST_F(InventoryTest, ReadFallsBackToTheFileWhileThisProcessHoldsTheSession) {
    write_file(file(), "A=1\nB=2\n");
    ASSERT_EQ(pta_open_session(), 0u);
    char value[8] = {};
    std::remove(file().c_str());
    const std::string missing =
        capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("B", value, 8), -1); });
    write_file(file(), "A=1\nB=2\n");
    capture_stdout([&] { EXPECT_EQ(pta20_inventory_get("B", value, 8), 0); });
    pta_close_session();
    EXPECT_STREQ(value, "2");
    EXPECT_TRUE(matches(missing, R"(\[I:pta_open_session:\d+\] pta_open_session: TEE is busy)"
                                 R"(\[read_config\] open .*/tmp/inventory.txt fail \n)"));
}

TEST_F(InventoryTest, DispatcherEntriesPrintAndSplit) {
    char set_x[] = "a=x";
    EXPECT_EQ(dispatch(PTA_DALU_CMD_INVENTORY_SET, set_x).first, 0);
    char set_empty[] = "=b=";
    EXPECT_EQ(dispatch(PTA_DALU_CMD_INVENTORY_SET, set_empty).first, 0);
    auto records = journal();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(records[0].params[0].input)), "a");
    EXPECT_EQ(records[0].params[1].size, 2u);
    EXPECT_EQ(std::memcmp(records[0].params[1].input, "x", 2), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(records[1].params[0].input)), "b");
    EXPECT_EQ(records[1].params[1].size, 0u);

    char get_a[] = "a";
    EXPECT_EQ(dispatch(PTA_DALU_CMD_INVENTORY_GET, get_a), std::make_pair(0, std::string("a=x\n")));
    char get_b[] = "b";
    EXPECT_EQ(dispatch(PTA_DALU_CMD_INVENTORY_GET, get_b), std::make_pair(0, std::string("b=\n")));
    EXPECT_EQ(read_file(file()), "") << "the dispatcher entries leave the file alone";

    char no_equals[] = "abc";
    const auto [rc, out] = dispatch(PTA_DALU_CMD_INVENTORY_SET, no_equals);
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(matches(
        out, R"(\[E:pta_invoke_inventory_set:\d+\] Argument must be in name=value format\n)"));
}

TEST_F(InventoryTest, LimitsAndInvalidArguments) {
    const std::string longest(1023, 'n');
    EXPECT_EQ(set(longest.c_str(), "v"), 0);
    const std::string too_long(1024, 'n');
    const std::string big(32768, 'v'); // 32769 bytes with its zero
    char value[8];
    std::string out = capture_stdout([&] {
        EXPECT_EQ(set(too_long.c_str(), "v"), -1);
        EXPECT_EQ(pta20_inventory_get(too_long.c_str(), value, 8), -1);
        EXPECT_EQ(set("BIG", big), -1);
        EXPECT_EQ(pta20_inventory_get(nullptr, value, 8), -1);
        EXPECT_EQ(pta20_inventory_get("x", nullptr, 8), -1);
        EXPECT_EQ(pta20_inventory_set(nullptr, "x", 2), -1);
    });
    EXPECT_TRUE(
        matches(out, R"(\[E:_pta_invoke_inventory_set:\d+\] Environment variable name too long\n)"
                     R"(\[E:_pta_invoke_inventory_get:\d+\] Environment variable name too long\n)"
                     R"(\[E:_pta_invoke_inventory_set:\d+\] Environment variable name too long\n)"
                     R"(Invalid arguments: name = \(null\), data = 0x[0-9a-f]+\n)"
                     R"(Invalid arguments: name = x, data = \(nil\)\n)"
                     R"(Invalid arguments: name = \(null\)\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 1u) << "only the 1023-character name reached it";
}

} // namespace
