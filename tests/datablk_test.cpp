// SPDX-License-Identifier: Apache-2.0
// Data blocks: the bytes of known blocks, the CRC, blocks from other software whose lengths
// cannot be trusted, and each operation's refusals and results. Elsewhere: the length fields of
// values of 1 to 65536 bytes (attestation's pairs are encoded as a block's), a set on a block
// whose format byte changed under its CRC (the firmware block), and the rules that hold on any
// block (the fuzz target, fuzz/datablk_fuzz.cpp).
#include "support/blocks.hpp"
#include "support/call_text.hpp"

#include <cstring>

using namespace karst::test;

namespace {
// NOLINTBEGIN(readability-magic-numbers): the tests spell out the bytes, lengths and offsets.

enum class Op { get, set, info, check, update_crc, create };

// One operation on blk: a get of key with capacity n, a set of key to n bytes, info option n, a
// check of an n-byte buffer, a CRC update, or a create of a block of n bytes in blk.
long apply(Bytes &blk, Op op, const std::string &key, uint32_t n) {
    Bytes bytes(op == Op::get || op == Op::set ? n + 1 : 0, 8); // a buffer even for n = 0
    switch (op) {
    case Op::get:
        return pta20_datablk_get(0, key.c_str(), bytes.data(), &n, blk.data());
    case Op::set:
        return pta20_datablk_set(DATABLK_MAGIC_CERT, key.c_str(), bytes.data(), n, blk.data());
    case Op::info:
        return pta20_datablk_get_info(blk.data(), static_cast<int32_t>(n));
    case Op::check:
        return pta20_datablk_check(blk.data(), n);
    case Op::update_crc:
        return pta20_datablk_update_crc(0, blk.data());
    case Op::create:
        return pta20_datablk_create(DATABLK_MAGIC_FW, blk.data(), n);
    }
    return 0;
}

int32_t used(const Bytes &blk) {
    return pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN);
}

// An operation as apply takes it, the routine its error line names (none: nothing is printed)
// and the message.
struct Refusal {
    Op op;
    std::string key;
    uint32_t n;
    std::string func, message;
};

// Each operation fails with just its error line and leaves the block as it was.
void expect_refused(Bytes blk, const std::vector<Refusal> &rows) {
    const Bytes before = blk;
    for (const Refusal &r : rows) {
        const std::string line = r.func.empty() ? "" : err(r.func, literal(r.message));
        EXPECT_TRUE(matches(run([&] { return apply(blk, r.op, r.key, r.n); }), "-1 " + line))
            << "operation " << static_cast<int>(r.op) << " " << r.key.substr(0, 8) << " " << r.n;
        EXPECT_TRUE(blk == before) << "operation " << static_cast<int>(r.op) << " changed it";
    }
}

// A 64-byte block with a correct CRC over hand-made records, as other software might send one.
Bytes foreign_block(Bytes records) {
    records.insert(records.begin(), 16, 0);
    records.resize(64, 0);
    std::memcpy(records.data(), new_block(64).data(), 16);
    EXPECT_EQ(pta20_datablk_update_crc(DATABLK_MAGIC_CERT, records.data()), 0);
    return records;
}

TEST(Datablk, KnownBlocksByteForByte) {
    Bytes blk = new_block(64);
    EXPECT_EQ(hex(blk), "da 2f 1a 09 44 45 52 43 01 01 00 01 00 00 00 30 " + hex(Bytes(48, 0)));
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_CRC), 0x091A2FDA);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_MAX_LEN), 48);
    ASSERT_EQ(set(blk, "ra_uid", {1, 2, 3}), 0);
    EXPECT_EQ(hex(blk), "0d 2f f6 19 44 45 52 43 01 01 00 01 00 00 00 30 "
                        "16 06 72 61 5f 75 69 64 02 01 03 01 02 03 " +
                            hex(Bytes(34, 0)));
    EXPECT_EQ(used(blk), 14);
    blk = new_block(64); // a pair that fills the data area: 2 + 1 + 2 + 1 + 42 bytes
    ASSERT_EQ(set(blk, "k", Bytes(42, 1)), 0);
    EXPECT_EQ(get(blk, "k") + std::to_string(used(blk)), std::string(42, 1) + "-1");
}

// The bytes of a set value equal those of a block built with it: the later pairs move, the bytes
// freed at the end read zero, the CRC is fresh.
TEST(Datablk, ReplacingAValueMovesTheLaterPairs) {
    const auto built = [](const Bytes &value) {
        Bytes blk = new_block(1024);
        EXPECT_EQ(sum({set(blk, "a", {1}), set(blk, "bb", value), set(blk, "c", Bytes(300, 3))}),
                  0);
        return blk;
    };
    const Bytes blk = built({2, 2});
    for (const uint32_t len : {670, 1, 256, 255}) {
        Bytes changed = blk;
        EXPECT_EQ(set(changed, "bb", Bytes(len, 'B')), 0) << len;
        EXPECT_TRUE(changed == built(Bytes(len, 'B'))) << len;
    }
}

TEST(Datablk, RecordsPointingPastTheDataAreaAreRefused) {
    const Bytes good = {0x16, 0x01, 'a', 0x02, 0x01, 0x01, 'A'};
    for (const auto &[tail, offset] : std::vector<std::pair<Bytes, std::string>>{
             {{0x16, 0xff, 'b'}, "7"},                          // name length past the end
             {{0x16, 0x01, 'b', 0x02, 0x02, 0xff, 0xff}, "10"}, // value length past the end
             {{0x16, 0x01, 'b', 0x02, 0xff, 0x01}, "10"}}) {    // length field past the end
        Bytes records = good;
        records.insert(records.end(), tail.begin(), tail.end());
        const std::string bounds = "Data Block record out of bounds at offset " + offset;
        const Bytes blk = foreign_block(records);
        EXPECT_EQ(get(blk, "a"), "A") << "the first match ends the walk";
        expect_refused(blk,
                       {{Op::get, "b", 8, "blk_getenv", bounds},
                        {Op::set, "c", 1, "blk_getenv", bounds},
                        {Op::set, "a", 2, "blk_setenv", bounds},
                        {Op::info, "", DATABLK_INFO_USED_LEN, "pta20_datablk_get_info", bounds},
                        {Op::check, "", 64, "pta20_datablk_check", bounds}});
    }
    // Five length bytes wrap as the secure world reads them: 01 00 00 00 00 is a 1-byte value.
    Bytes blk = foreign_block({0x16, 0x01, 'b', 0x02, 0x05, 0x01, 0, 0, 0, 0, 'B'});
    EXPECT_EQ(get(blk, "b") + std::to_string(apply(blk, Op::check, "", 64)), "B0");
    EXPECT_EQ(used(foreign_block({0x16, 0x00, 0x02, 0x01, 0x01, 'A'})), 0) << "a zero length";
}

TEST(Datablk, LengthsCrcsAndBuffersThatDoNotHoldAreRefused) {
    const std::string check = "pta20_datablk_check", info = "pta20_datablk_get_info";
    const std::string bad_len = "Incorrect datablk max data length ffffff30";
    Bytes blk = new_block(64);
    blk[12] = blk[13] = blk[14] = 0xFF; // more than any block may hold
    expect_refused(blk, {{Op::get, "k", 8, "blk_getenv", bad_len},
                         {Op::info, "", 4, info, bad_len},
                         {Op::update_crc, "", 0, "pta20_datablk_update_crc", bad_len}});
    blk[12] = blk[13] = 0; // a length a block may have, but more than this buffer holds
    blk[14] = 0x01;
    expect_refused(blk, {{Op::check, "", 64, check, "Incorrect datablk max data length 130"},
                         {Op::check, "", 16, check, "Incorrect buffer length 10"}});
    blk = new_block(64);
    EXPECT_EQ(apply(blk, Op::check, "", 100), 0);
    expect_refused(blk, {{Op::check, "", 63, check, "Incorrect datablk max data length 30"},
                         {Op::info, "", 3, info, "Invalid argument opt (3)"}});
    blk[40] ^= 1; // a byte of the data area, after the CRC was stored
    expect_refused(blk, {{Op::check, "", 64, check, "CRC error"},
                         {Op::get, "k", 8, "blk_getenv", "Data Block bad CRC"}});

    // A create needs room for a data byte behind the header, and writes nothing else.
    Bytes buf(64, 0xEE);
    const std::string create = "pta20_datablk_create";
    expect_refused(buf, {{Op::create, "", 1, create, "Incorrect buffer length 1"},
                         {Op::create, "", 16, create, "Incorrect buffer length 10"},
                         {Op::create, "", 0x3FFFF1, create, "Incorrect buffer length 3ffff1"}});
    EXPECT_EQ(sum({pta20_datablk_create(0, buf.data(), 64), pta20_datablk_create(1, nullptr, 64),
                   pta20_datablk_create(1, buf.data(), 0)}),
              -3);
    EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, buf.data(), 17), 0);
    EXPECT_EQ(buf[17], 0xEE) << "create wrote past its length";
}

TEST(Datablk, SetAndGetRefusalsAndResults) {
    Bytes blk = new_block(64);
    ASSERT_EQ(set(blk, "ra_uid", Bytes(30, 7)), 0); // 41 of 48 bytes used
    // The new pair needs 40 bytes: the 41 the old one would release do not count.
    expect_refused(
        blk, {{Op::set, "ra_uid", 29, "", ""},
              {Op::set, "new", 2, "", ""},
              {Op::set, "k", 0, "blk_set", "Incorrect datablk length 0"},
              {Op::set, "k", 0x3FFFF1, "blk_set", "Incorrect datablk length 3ffff1"},
              {Op::set, "", 1, "blk_set", "Incorrect key name length 0"},
              {Op::set, std::string(256, 'k'), 1, "blk_set", "Incorrect key name length 256"},
              {Op::get, "missing", 8, "", ""},
              {Op::get, "ra_ui", 8, "", ""},
              {Op::get, "ra_uid", 0, "blk_get", "Incorrect datablk length 0"},
              {Op::get, "ra_uid", 0x400000, "blk_get", "Incorrect datablk length 400000"},
              {Op::get, std::string(256, 'k'), 8, "blk_get", "Incorrect key name length 256"}});
    EXPECT_TRUE(matches(run([&] { return set(blk, "k", {1}, DATABLK_MAGIC_ATT); }),
                        "-1 " + err("blk_set", "Incorrect datablk magic id 0x49545441")));
    uint32_t len = 8;
    // A get reads into the caller's buffer, whatever the magic id, when the value fits exactly;
    // one too small gets -1, its capacity unchanged and zeroed, and no message.
    uint8_t value[32];
    std::memset(value, '#', sizeof value);
    EXPECT_EQ(run([&] { return pta20_datablk_get(0, "ra_uid", value, &len, blk.data()); }), "-1 ");
    EXPECT_EQ(std::to_string(len) + hex(value, 9), "8" + hex(Bytes(8, 0)) + " 23");
    len = 30;
    ASSERT_EQ(pta20_datablk_get(DATABLK_MAGIC_ATT, "ra_uid", value, &len, blk.data()), 0);
    EXPECT_EQ(std::to_string(len) + hex(value, 32), "30" + hex(Bytes(30, 7)) + " 23 23");
}

// NOLINTEND(readability-magic-numbers)
} // namespace
