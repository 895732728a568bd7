// SPDX-License-Identifier: Apache-2.0
// The signature table parser on tables built here, word by word: what it prints and hands back.
#include "support/test_env.hpp"

#include <arpa/inet.h>

using namespace karst::test;

namespace {

// Parses words, stored big-endian in a buffer of exactly the largest table (the rest filled);
// what it printed, without the "[I:dalu_parse_sigtbl:NN] " prefixes.
std::string parse(const std::vector<uint32_t> &words, sig_block *blocks, sig_entry *sigs, int &rc) {
    std::vector<uint32_t> table(SIGTBL_MAX_BYTES / 4, 0xDEADBEEF);
    std::transform(words.begin(), words.end(), table.begin(), htonl);
    const std::string out =
        capture_stdout([&] { rc = dalu_parse_sigtbl(table.data(), blocks, sigs); });
    return std::regex_replace(out, std::regex(R"((^|\n)\[I:dalu_parse_sigtbl:\d+\] )"), "$1");
}

TEST(SignatureTable, HeaderListsAndOtherVersions) {
    sig_block blocks[SIGTBL_MAX_ENTRIES] = {};
    sig_entry sigs[SIGTBL_MAX_ENTRIES] = {};
    blocks[1].address = 0x11111111; // records after the last entry are left alone
    int rc = -1;
    // Header and protection map, a block of 0x80 bytes, the reserved word, a signed size of 5 x 64
    // bytes, a signature and a skip block: each the last of its list.
    EXPECT_EQ(parse({0x53000007, 0x12340ABC, 0x00020010, 0x1000, 0x20000000, 0x400, 0xFFFFFFFF,
                     0xA00, 0x100, 0x1000, 0x200, 0x00FF0001},
                    blocks, sigs, rc),
              "Table Version: 0x5300\nBoard ID: 0x7\nSize of Table: 0x68\nCheck Sum: 0xabc\n"
              "Rollback Protection Revision: 0x2\nOffset of skip table: 0x20\n"
              "Start of Protection Map: 0x1000\n"
              "Signature Block[0] - address: 0x20000000, size: 0x80, flag: 0\n"
              "Total signed image size: 0x140\nSignature[0] - offset: 0x100, Flag: 0x0\n"
              "Boot ID offset: 0x1000\nUpdate/Skip block[0] - offset: 0x00000200, block unit: "
              "0xff, block number: 1, flag 0x0\n");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(std::tie(blocks[0].address, blocks[0].size, blocks[0].flag, blocks[1].address,
                       sigs[0].offset, sigs[0].boot_id_offset, sigs[0].flag),
              std::tuple(0x20000000u, 0x80u, 0, 0x11111111u, 0x100u, 0x1000u, 0));

    // Every entry says another follows: each list stops at 16 (the last word read is word 101).
    std::vector<uint32_t> words = {0x53000001, 0, 0, 0};
    for (uint32_t i = 0; i < 3 * SIGTBL_MAX_ENTRIES; ++i) {
        words.insert(words.end(), {0x1000 * (i % 16) + i / 16, i < 32 ? 0xFFFFFFFF : 0x81020003});
        if (i == 15) {
            words.insert(words.end(), {0, 0x200}); // reserved, signed size
        }
    }
    const std::string full = parse(words, blocks, sigs, rc);
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(full.ends_with("Update/Skip block[15] - offset: 0x0000f002, block unit: 0x2, "
                               "block number: 3, flag 0x81\n"));
    EXPECT_EQ(std::tie(blocks[15].address, blocks[15].size, blocks[15].flag, sigs[15].offset,
                       sigs[15].boot_id_offset, sigs[15].flag),
              std::tuple(0xF000u, 0x3FFFFC0u, 1, 0xF001u, 0x7FFFFFFFu, 1));

    // Another version: the header only. No table: nothing.
    const std::string other = parse({0x53010007, 0, 0, 0x1234}, blocks, sigs, rc);
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(other.ends_with("\nOffset of skip table: 0x0\n")) << other;
    EXPECT_EQ(dalu_parse_sigtbl(nullptr, blocks, sigs), -1);
}

} // namespace
