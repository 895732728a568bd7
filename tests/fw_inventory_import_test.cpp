// Firmware inventory import: which keys are written to the application, which are reported as
// the same, and the file and session failures.
#include "support/test_env.hpp"

#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

class FwInventoryImportTest : public KarstTest {
  protected:
    std::string legacy() const { return path("/nv1/fw_inventory.txt"); }

    // Stores a value in the application as a text with its zero.
    static void hold(const char *key, const std::string &value) {
        ASSERT_EQ(pta_open_session(), 0u);
        ASSERT_EQ(
            _pta_invoke_inventory_set(key, value.c_str(), static_cast<uint32_t>(value.size() + 1)),
            0);
        pta_close_session();
    }

    std::pair<int, std::string> import() const {
        karst_emu_journal_clear();
        int rc = 0;
        const std::string out =
            capture_stdout([&] { rc = pta20_import_fw_invt_tavo(legacy().c_str()); });
        return {rc, out};
    }

    // The sets of the last import, as key -> bytes sent.
    static std::vector<std::pair<std::string, std::string>> sets() {
        std::vector<std::pair<std::string, std::string>> out;
        for (const auto &r : journal()) {
            if (r.command == PTA_DALU_CMD_INVENTORY_SET) {
                out.emplace_back(reinterpret_cast<const char *>(r.params[0].input),
                                 std::string(reinterpret_cast<const char *>(r.params[1].input),
                                             r.params[1].input_kept));
            }
        }
        return out;
    }
};

using Sets = std::vector<std::pair<std::string, std::string>>;

TEST_F(FwInventoryImportTest, OnlyDifferentValuesAreWritten) {
    hold("BIOS_VER", "1.2");
    hold("CPLD_VER", "2");
    write_file(legacy(), "BIOS_VER=1.2\nCPLD_VER=3\n");
    const auto [rc, out] = import();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "datablk and file FW invt value of key: BIOS_VER are the same.\n");
    EXPECT_EQ(sets(), (Sets{{"CPLD_VER", std::string("3\0", 2)}}));
    EXPECT_EQ(journal().size(), 3u) << "two reads and one write, in one session";
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 3u);
}

TEST_F(FwInventoryImportTest, LinesAreTakenAsTheInventoryFileTakesThem) {
    hold("EMPTIED", "was set");
    hold("LONG", "old");
    write_file(legacy(), "=SKIPPED=1\nEMPTIED=\nLONG=" + std::string(100, 'x') + "\n");
    const auto [rc, out] = import();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(sets(), (Sets{{"EMPTIED", std::string(1, '\0')},
                            {"LONG", std::string(63, 'x') + std::string(1, '\0')}}));
}

TEST_F(FwInventoryImportTest, UnreadableApplicationValuesAreOverwritten) {
    hold("HUGE", std::string(80, 'h'));
    write_file(legacy(), "HUGE=small\nNEW=1\n");
    const auto [rc, out] = import();
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_inventory_get:\d+\] Buffer has less space \(64\) than actual data size \(81\)\n)"
        R"(\[E:_pta_invoke_inventory_get:\d+\] TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n)"));
    EXPECT_EQ(sets(), (Sets{{"HUGE", std::string("small\0", 6)}, {"NEW", std::string("1\0", 2)}}));
}

TEST_F(FwInventoryImportTest, EmptyFileSendsNothing) {
    write_file(legacy(), "");
    const auto [rc, out] = import();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(FwInventoryImportTest, FileAndSessionFailures) {
    auto [rc, out] = import();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out, "[pta20_import_fw_invt_tavo] open " + legacy() + " fail \n");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);

    write_file(legacy(), "A=1\n");
    ASSERT_EQ(pta_open_session(), 0u);
    std::tie(rc, out) = import();
    pta_close_session();
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(matches(out, R"(\[I:pta_open_session:\d+\] pta_open_session: TEE is busy)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    // The file was unlocked: a writer gets it at once.
    EXPECT_EQ(write_config(legacy().c_str(), "A", "2", 2), 0);
}

} // namespace
