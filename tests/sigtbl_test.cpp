// The signature table parser on tables built here, word by word.
#include "support/test_env.hpp"

#include <arpa/inet.h>
#include <regex>
#include <sstream>
#include <vector>

using namespace karst::test;

namespace {

// A table under construction: words are given as numbers and stored big-endian.
class Table {
  public:
    Table &word(uint32_t w) {
        words_.push_back(htonl(w));
        return *this;
    }
    Table &entry(uint32_t first, uint32_t second) { return word(first).word(second); }
    const uint32_t *data() {
        words_.resize(SIGTBL_MAX_BYTES / 4, 0xDEADBEEF); // what follows the table is not read
        return words_.data();
    }

  private:
    std::vector<uint32_t> words_;
};

std::vector<std::string> lines(const std::string &out) {
    std::vector<std::string> result;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        // Drop the "[I:dalu_parse_sigtbl:NN] " prefix after checking it.
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, std::regex(R"(\[I:dalu_parse_sigtbl:\d+\] (.*))")))
            << line;
        result.push_back(m[1]);
    }
    return result;
}

TEST(SignatureTable, HeaderAndOneEntryPerList) {
    Table t;
    t.word(0x53000007).word(0x12340ABC).word(0x00020010).word(0x1000);
    t.entry(0x20000000, 0x00000400); // one block: flag 0, 0x80 bytes
    t.word(0xFFFFFFFF);              // reserved
    t.word(0x00000A00);              // total signed size: 5 units of 64 bytes
    t.entry(0x100, 0x00001000);      // one signature: flag 0
    t.entry(0x200, 0x00FF0001);      // one skip block: flag 0
    sig_block blocks[16] = {};
    sig_entry sigs[16] = {};
    blocks[1].address = 0x11111111; // records after the last entry are left alone
    int rc = 0;
    const std::string out = capture_stdout([&] { rc = dalu_parse_sigtbl(t.data(), blocks, sigs); });
    EXPECT_EQ(rc, 0);
    const std::vector<std::string> expected = {
        "Table Version: 0x5300",
        "Board ID: 0x7",
        "Size of Table: 0x68",
        "Check Sum: 0xabc",
        "Rollback Protection Revision: 0x2",
        "Offset of skip table: 0x20",
        "Start of Protection Map: 0x1000",
        "Signature Block[0] - address: 0x20000000, size: 0x80, flag: 0",
        "Total signed image size: 0x140",
        "Signature[0] - offset: 0x100, Flag: 0x0",
        "Boot ID offset: 0x1000",
        "Update/Skip block[0] - offset: 0x00000200, block unit: 0xff, block number: 1, flag 0x0",
    };
    EXPECT_EQ(lines(out), expected);
    EXPECT_EQ(blocks[0].address, 0x20000000u);
    EXPECT_EQ(blocks[0].size, 0x80u);
    EXPECT_EQ(blocks[0].flag, 0);
    EXPECT_EQ(blocks[1].address, 0x11111111u);
    EXPECT_EQ(sigs[0].offset, 0x100u);
    EXPECT_EQ(sigs[0].boot_id_offset, 0x1000u);
    EXPECT_EQ(sigs[0].flag, 0);
}

TEST(SignatureTable, ListsRunToTheirLastEntryAndSixteenAtMost) {
    Table t;
    t.word(0x53000001).word(0).word(0).word(0);
    for (uint32_t i = 0; i < 16; ++i) {
        t.entry(0x1000 * i, 0x80000200); // flag 1 each time: the list takes all 16
    }
    t.word(0).word(0x200);
    t.entry(0x10, 0x80001000).entry(0x20, 0x7FFFFFFF); // two signatures
    t.entry(0x30, 0x01020003).entry(0x40, 0x02000004).entry(0x50, 0x00000005);
    sig_block blocks[16] = {};
    sig_entry sigs[16] = {};
    int rc = 0;
    const std::string out = capture_stdout([&] { rc = dalu_parse_sigtbl(t.data(), blocks, sigs); });
    ASSERT_EQ(rc, 0);
    const auto l = lines(out);
    ASSERT_EQ(l.size(), 7u + 16 + 1 + 4 + 3);
    EXPECT_EQ(l[7 + 15], "Signature Block[15] - address: 0x0000f000, size: 0x40, flag: 1");
    EXPECT_EQ(l[23], "Total signed image size: 0x40") << "the size word after the reserved one";
    EXPECT_EQ(l[24], "Signature[0] - offset: 0x10, Flag: 0x1");
    EXPECT_EQ(l[27], "Boot ID offset: 0x7fffffff");
    EXPECT_EQ(l[28], "Update/Skip block[0] - offset: 0x00000030, block unit: 0x2, block number: "
                     "3, flag 0x1");
    EXPECT_EQ(l[30], "Update/Skip block[2] - offset: 0x00000050, block unit: 0x0, block number: "
                     "5, flag 0x0");
    for (const sig_block &b : blocks) {
        EXPECT_EQ(b.flag, 1);
        EXPECT_EQ(b.size, 0x40u);
    }
    EXPECT_EQ(sigs[1].flag, 0);
    EXPECT_EQ(sigs[1].boot_id_offset, 0x7FFFFFFFu);
}

TEST(SignatureTable, FullTableReadsExactly408Bytes) {
    // All three lists at 16 entries: the last word read is word 101.
    std::vector<uint32_t> words(SIGTBL_MAX_BYTES / 4);
    words[0] = htonl(0x53000000);
    for (size_t i = 4; i < words.size(); ++i) {
        words[i] = htonl(0x80000000 | 0x01000000);
    }
    sig_block blocks[16];
    sig_entry sigs[16];
    std::string out = capture_stdout([&] { dalu_parse_sigtbl(words.data(), blocks, sigs); });
    EXPECT_NE(out.find("Update/Skip block[15]"), std::string::npos);
    EXPECT_EQ(out.find("Update/Skip block[16]"), std::string::npos);
}

TEST(SignatureTable, OtherVersionsStopAfterTheHeader) {
    Table t;
    t.word(0x53010007).word(0).word(0).word(0x1234);
    sig_block blocks[16] = {};
    sig_entry sigs[16] = {};
    blocks[0].address = 0xAA;
    int rc = 0;
    const std::string out = capture_stdout([&] { rc = dalu_parse_sigtbl(t.data(), blocks, sigs); });
    EXPECT_EQ(rc, -1);
    const auto l = lines(out);
    ASSERT_EQ(l.size(), 6u);
    EXPECT_EQ(l[0], "Table Version: 0x5301");
    EXPECT_EQ(l[1], "Board ID: 0x7");
    EXPECT_EQ(blocks[0].address, 0xAAu);
    EXPECT_EQ(dalu_parse_sigtbl(nullptr, blocks, sigs), -1);
}

} // namespace
