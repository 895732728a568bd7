// The otp program, run as a process of its own for each sub-command: its output, the files it
// writes, what reaches the secure world (the journal file of the emulator), and its exit status,
// which is 0 whatever happened.
#include "support/program.hpp"
#include "support/test_env.hpp"

#include <cstdlib>
#include <cstring>
#include <regex>

using namespace karst::test;

namespace {

const char USAGE[] = "usage:\n"
                     "otp getkey <keyid> <output>\n"
                     "otp prog_usr <offset> <data>\n"
                     "otp getsn <offset> <data>\n";

class OtpProgramTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        journal_ = path("/journal.txt");
        setenv("KARST_EMU_JOURNAL", journal_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("KARST_EMU_JOURNAL");
        KarstTest::TearDown();
    }
    ProgramRun otp(const std::vector<std::string> &args) {
        return run_program(otp_program(), args);
    }
    std::string journal_text() const { return read_file(journal_); }

    std::string journal_;
};

TEST_F(OtpProgramTest, GetkeyReadsTheHexKeyNumberIntoA64ByteFile) {
    const std::string k1 = path("/tmp/k1.bin");
    const std::string k2 = path("/tmp/k2.bin");
    ProgramRun run = otp({"getkey", "1a", k1});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "");
    run = otp({"getkey", "0x1A", k2, "extra"});
    EXPECT_EQ(run.status, 0);
    const std::string key = read_file(k1);
    ASSERT_EQ(key.size(), 64u);
    EXPECT_EQ(key, read_file(k2));
    EXPECT_NE(key.substr(0, 32), std::string(32, '\0'));
    EXPECT_EQ(key.substr(32), std::string(32, '\0')) << "a 32-byte key, the rest zero";
    EXPECT_TRUE(std::regex_search(journal_text(), std::regex("cmd=20 types=0xc1 .*p0=0x1:a=0x1a")))
        << journal_text();
}

TEST_F(OtpProgramTest, GetkeyFailureStillWritesTheFileAsZeros) {
    const std::string k = path("/tmp/k.bin");
    const ProgramRun run = otp({"getkey", "zz", k}); // no digits: key 0, which exists
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(std::regex_search(journal_text(), std::regex("p0=0x1:a=0x0,")));
    const ProgramRun bad = otp({"getkey", "ff", k}); // no key 0xff
    EXPECT_EQ(bad.status, 0);
    EXPECT_TRUE(std::regex_match(
        bad.output,
        std::regex(
            R"(\[E:__pta_invoke_otp_get_key:\d+\] TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n)")));
    EXPECT_EQ(read_file(k), std::string(64, '\0'));
}

TEST_F(OtpProgramTest, ProgUsrProgramsTheFileAtTheHexOffsetOnce) {
    const std::string d = path("/tmp/d.bin");
    write_file(d, "serial-data");
    ProgramRun run = otp({"prog_usr", "100", d});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "");
    uint8_t area[11] = {};
    ASSERT_EQ(karst_emu_otp_user_read(0x100, area, sizeof area), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(area), sizeof area), "serial-data");

    run = otp({"prog_usr", "0x100", d});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(std::regex_match(
        run.output,
        std::regex(
            R"(\[E:__pta_invoke_otp_prog_usr:\d+\] TEEC_InvokeCommand failed with code 0xffff0003 origin 0x4\n)")));

    const std::string before = journal_text();
    run = otp({"prog_usr", "200", path("/tmp/none.bin")});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(std::regex_match(
        run.output, std::regex(R"(\[E:readbin:\d+\] Failed to open file:.*/tmp/none.bin\n)")));
    EXPECT_EQ(journal_text(), before) << "a missing file sends nothing";
}

TEST_F(OtpProgramTest, GetsnPrintsTheBoardSerialNumber) {
    const ProgramRun run = otp({"getsn"});
    EXPECT_EQ(run.status, 0);
    uint32_t word = 0;
    char serial[64] = {};
    ASSERT_EQ(pta20_otp_board_sn_get(&word, serial, sizeof serial), 0);
    EXPECT_EQ(run.output, std::string(serial) + "\n");
    EXPECT_EQ(otp({"getsn", "ignored", "operands"}).output, run.output);
}

TEST_F(OtpProgramTest, UsageTextAndSubCommandsThatDoNothing) {
    const std::vector<std::vector<std::string>> usage_cases = {
        {}, {"dump"}, {"GETKEY", "1", "x"}, {"getkey", "5"}, {"prog_usr"}};
    for (const auto &args : usage_cases) {
        const ProgramRun run = otp(args);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.output, USAGE);
    }
    for (const char *quiet : {"version", "read"}) {
        const ProgramRun run = otp({quiet, "anything"});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.output, "");
    }
    EXPECT_EQ(journal_text(), "") << "nothing reached the secure world";
}

} // namespace
