// The data block as bytes: header, pairs, length fields, the CRC, and blocks made by other
// software whose lengths cannot be trusted.
#include "datablk/klv.hpp"
#include "support/blocks.hpp"
#include "support/test_env.hpp"

#include <cstring>

using namespace karst::test;

namespace {

TEST(DatablkFormat, EmptyBlockAndStoredPairByteForByte) {
    Bytes blk = new_block(64);
    ASSERT_EQ(blk.size(), 64u);
    EXPECT_EQ(hex(blk.data(), 16), "da 2f 1a 09 44 45 52 43 01 01 00 01 00 00 00 30");
    EXPECT_EQ(Bytes(blk.begin() + 16, blk.end()), Bytes(48, 0));
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_CRC), 0x091A2FDA);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_MAX_LEN), 48);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 0);

    ASSERT_EQ(set(blk, "ra_uid", {1, 2, 3}), 0);
    EXPECT_EQ(hex(blk.data(), 16), "0d 2f f6 19 44 45 52 43 01 01 00 01 00 00 00 30");
    EXPECT_EQ(hex(blk.data() + 16, 14), "16 06 72 61 5f 75 69 64 02 01 03 01 02 03");
    EXPECT_EQ(Bytes(blk.begin() + 30, blk.end()), Bytes(34, 0));
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 14);
}

TEST(DatablkFormat, ValueLengthTakesTheFewestBytes) {
    struct Case {
        uint32_t len;
        const char *header;
    };
    for (const Case &c : {Case{4, "02 01 04"}, Case{255, "02 01 ff"}, Case{256, "02 02 01 00"},
                          Case{65536, "02 03 01 00 00"}}) {
        Bytes blk = new_block(70000);
        const Bytes value(c.len, 0x5A);
        ASSERT_EQ(set(blk, "fw_img", value), 0) << c.len;
        const size_t header_len = (std::strlen(c.header) + 1) / 3;
        EXPECT_EQ(hex(blk.data() + 16, 8 + header_len),
                  std::string("16 06 66 77 5f 69 6d 67 ") + c.header);
        EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN),
                  static_cast<int32_t>(8 + header_len + c.len));
    }
}

TEST(DatablkFormat, KlvHelperEncodesPairsAsBlocksHoldThem) {
    namespace klv = karst::klv;
    Bytes blk = new_block(64);
    ASSERT_EQ(set(blk, "ra_uid", {1, 2, 3}), 0);
    uint8_t out[14] = {};
    const uint8_t value[] = {1, 2, 3};
    EXPECT_EQ(klv::encode_pair(out, "ra_uid", value), 14u);
    EXPECT_EQ(hex(out, 14), hex(blk.data() + 16, 14));

    // Nothing is written for a name that cannot be recorded or a pair that does not fit.
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(klv::encode_pair(out, "", value), 0u);
    EXPECT_EQ(klv::encode_pair(out, std::string(256, 'k'), value), 0u);
    EXPECT_EQ(klv::encode_pair({out, 13}, "ra_uid", value), 0u);
    EXPECT_EQ(hex(out, 14), hex(Bytes(14, 0xEE)));
    // An empty value still gets a one-byte length field.
    EXPECT_EQ(klv::encode_pair(out, "k", {}), 6u);
    EXPECT_EQ(hex(out, 6), "16 01 6b 02 01 00");
    // Lengths are decoded with shifts modulo 32, as the secure world reads them.
    const uint8_t five[] = {0x01, 0x00, 0x00, 0x00, 0x02};
    EXPECT_EQ(klv::be_decode(five, 5), 3u);
}

TEST(DatablkCrc, StandardCheckValueAndContinuation) {
    const char digits[] = "123456789";
    EXPECT_EQ(crc32i(0xFFFFFFFF, digits, 9), 0xCBF43926u);
    for (uint32_t cut = 0; cut <= 9; ++cut) {
        const uint32_t first = crc32i(0xFFFFFFFF, digits, cut);
        EXPECT_EQ(crc32i(~first, digits + cut, 9 - cut), 0xCBF43926u) << cut;
    }
    // The seed is used as given, never inverted first: no bytes give its complement.
    EXPECT_EQ(crc32i(0x12345678, digits, 0), ~0x12345678u);
    EXPECT_EQ(crc32i(0x12345678, nullptr, 5), ~0x12345678u);
}

TEST(DatablkCrc, CoversEveryByteOfTheBlock) {
    Bytes blk = new_block(64);
    ASSERT_EQ(set(blk, "ra_uid", {1, 2, 3}), 0);
    for (size_t i = 0; i < blk.size(); ++i) {
        if (i >= 12 && i < 15) {
            continue; // a larger max_data_len would claim more than the buffer holds
        }
        Bytes changed = blk;
        changed[i] ^= i == 15 ? 0x10 : 0x01;
        const std::string out = capture_stdout(
            [&] { EXPECT_EQ(pta20_datablk_get_info(changed.data(), DATABLK_INFO_CRC), -1) << i; });
        EXPECT_TRUE(is_error(out, "pta20_datablk_get_info", "CRC error")) << i << out;
    }
}

// A block with a correct CRC over hand-made records, as other software might send one.
Bytes foreign_block(const Bytes &records, uint32_t size = 64) {
    Bytes blk = new_block(size);
    std::memcpy(blk.data() + 16, records.data(), records.size());
    EXPECT_EQ(pta20_datablk_update_crc(DATABLK_MAGIC_CERT, blk.data()), 0);
    return blk;
}

TEST(DatablkForeign, RecordsPointingPastTheDataAreaAreRefused) {
    const Bytes good = {0x16, 0x01, 'a', 0x02, 0x01, 0x01, 'A'};
    struct Tail {
        Bytes records;
        const char *offset; // of the record that points past the data area
    };
    const std::vector<Tail> tails = {
        {{0x16, 0xff, 'b'}, "7"},                          // name length past the end
        {{0x16, 0x01, 'b', 0x02, 0x02, 0xff, 0xff}, "10"}, // value length past the end
        {{0x16, 0x01, 'b', 0x02, 0xff, 0x01}, "10"},       // length field past the end
    };
    for (size_t t = 0; t < tails.size(); ++t) {
        Bytes records = good;
        records.insert(records.end(), tails[t].records.begin(), tails[t].records.end());
        const std::string bounds =
            std::string("Data Block record out of bounds at offset ") + tails[t].offset;
        Bytes blk = foreign_block(records);
        const Bytes before = blk;

        // A key ahead of the bad record is still found: the first match ends the walk.
        EXPECT_EQ(get(blk, "a"), "A") << t;
        std::string out = capture_stdout([&] { EXPECT_EQ(get(blk, "b"), "<-1>"); });
        EXPECT_TRUE(is_error(out, "blk_getenv", bounds)) << t << out;
        out = capture_stdout([&] { EXPECT_EQ(set(blk, "c", {1}), -1); });
        EXPECT_TRUE(is_error(out, "blk_getenv", bounds));
        out = capture_stdout([&] { EXPECT_EQ(set(blk, "a", {2}), -1); });
        EXPECT_TRUE(is_error(out, "blk_setenv", bounds));
        EXPECT_EQ(blk, before);
        out = capture_stdout(
            [&] { EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), -1); });
        EXPECT_TRUE(is_error(out, "pta20_datablk_get_info", bounds));
        out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_check(blk.data(), 64), -1); });
        EXPECT_TRUE(is_error(out, "pta20_datablk_check", bounds));
    }
    // Five length bytes wrap as the secure world reads them: 01 00 00 00 00 is a 1-byte value.
    Bytes records = good;
    const Bytes wrapping = {0x16, 0x01, 'b', 0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00, 'B'};
    records.insert(records.end(), wrapping.begin(), wrapping.end());
    const Bytes blk = foreign_block(records);
    EXPECT_EQ(get(blk, "b"), "B");
    EXPECT_EQ(pta20_datablk_check(blk.data(), 64), 0);
}

TEST(DatablkForeign, NameThatFillsTheDataAreaEndsTheRecords) {
    Bytes name_only = {0x16, 46};
    name_only.resize(48, 'n');
    Bytes blk = foreign_block(name_only);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), -1);
    EXPECT_EQ(get(blk, std::string(46, 'n')), "<-1>");
    // A name without a value is no pair: a set takes its place, and the block still checks.
    EXPECT_EQ(set(blk, "k", {1}), 0);
    EXPECT_EQ(get(blk, "k"), std::string(1, '\1'));
    EXPECT_EQ(pta20_datablk_check(blk.data(), static_cast<uint32_t>(blk.size())), 0);
}

TEST(DatablkForeign, DataLengthBeyondTheBufferIsNeverFollowed) {
    // A 64-byte buffer whose header claims more than any block may hold.
    Bytes blk = new_block(64);
    blk[12] = blk[13] = blk[14] = 0xFF;
    const Bytes before = blk;
    const std::string bad_len = "Incorrect datablk max data length ffffff30";
    std::string out = capture_stdout([&] { EXPECT_EQ(get(blk, "k"), "<-1>"); });
    EXPECT_TRUE(is_error(out, "blk_getenv", bad_len)) << out;
    out = capture_stdout([&] { EXPECT_EQ(set(blk, "k", {1}), -1); });
    EXPECT_TRUE(is_error(out, "blk_getenv", bad_len)) << out;
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_get_info(blk.data(), 4), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_get_info", bad_len)) << out;
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_update_crc(0, blk.data()), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_update_crc", bad_len)) << out;
    EXPECT_EQ(blk, before);

    // A length that a block may have, but more than this buffer holds: the check refuses it.
    blk[12] = blk[13] = 0;
    blk[14] = 0x01;
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_check(blk.data(), 64), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_check", "Incorrect datablk max data length 130"));
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_check(blk.data(), 16), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_check", "Incorrect buffer length 10"));
    EXPECT_EQ(pta20_datablk_check(new_block(64).data(), 64), 0);
    EXPECT_EQ(pta20_datablk_check(new_block(64).data(), 100), 0);
    Bytes changed = new_block(64);
    changed[40] ^= 1; // a byte of the data area, after the CRC was stored
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_check(changed.data(), 64), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_check", "CRC error"));
}

} // namespace
