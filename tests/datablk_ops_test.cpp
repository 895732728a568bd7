// The data block operations: results, messages, and the rule that a failed set leaves the
// block exactly as it was.
#include "support/blocks.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <functional>

using namespace karst::test;

namespace {

Bytes block_of(const std::vector<std::pair<std::string, std::string>> &pairs, uint32_t size) {
    Bytes blk = new_block(size);
    for (const auto &[key, value] : pairs) {
        EXPECT_EQ(set(blk, key, bytes_of(value)), 0) << key;
    }
    return blk;
}

TEST(DatablkCreate, RefusesWhatCannotHoldABlock) {
    Bytes buf(64, 0xEE);
    const Bytes junk = buf;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_datablk_create(0, buf.data(), 64), -1);
        EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, nullptr, 64), -1);
        EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, buf.data(), 0), -1);
    });
    EXPECT_EQ(out, "");
    out = capture_stdout(
        [&] { EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, buf.data(), 0x3FFFF1), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_create", "Incorrect buffer length 3ffff1")) << out;
    // 1 to 16 bytes pass the length rule but hold no data area.
    for (uint32_t len = 1; len <= 16; ++len) {
        out = capture_stdout(
            [&] { EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, buf.data(), len), -1); });
        char hex_len[8];
        std::snprintf(hex_len, sizeof hex_len, "%x", len);
        EXPECT_TRUE(is_error(out, "pta20_datablk_create",
                             std::string("Incorrect buffer length ") + hex_len))
            << out;
    }
    EXPECT_EQ(buf, junk);
    EXPECT_EQ(pta20_datablk_create(DATABLK_MAGIC_FW, buf.data(), 17), 0);
    EXPECT_EQ(pta20_datablk_get_info(buf.data(), DATABLK_INFO_MAX_LEN), 1);
    EXPECT_EQ(buf[17], 0xEE) << "create wrote past its length";

    EXPECT_EQ(pta20_datablk_destroy(DATABLK_MAGIC_FW, buf.data(), 17), 0);
    EXPECT_EQ(pta20_datablk_destroy(0, buf.data(), 17), -1);
    EXPECT_EQ(pta20_datablk_destroy(DATABLK_MAGIC_FW, nullptr, 17), -1);
    EXPECT_EQ(pta20_datablk_destroy(DATABLK_MAGIC_FW, buf.data(), 0), -1);
}

TEST(DatablkSet, ReplacingAValueKeepsTheOrderOfPairs) {
    const Bytes blk = block_of({{"a", "1"}, {"bb", "22"}, {"c", std::string(300, 'c')}}, 1024);
    for (const std::string &value : {std::string(1000 - 330, 'B'), std::string("2"),
                                     std::string(256, 'x'), std::string(255, 'y')}) {
        Bytes changed = blk;
        ASSERT_EQ(set(changed, "bb", bytes_of(value)), 0) << value.size();
        // Same bytes as a block built in that order from the start: later pairs moved, the
        // bytes freed at the end read zero, the CRC is fresh.
        EXPECT_EQ(changed,
                  block_of({{"a", "1"}, {"bb", value}, {"c", std::string(300, 'c')}}, 1024))
            << value.size();
        EXPECT_EQ(get(changed, "bb"), value);
        EXPECT_EQ(get(changed, "c"), std::string(300, 'c'));
    }
}

TEST(DatablkSet, StoringTheSameValueChangesNothing) {
    Bytes blk = block_of({{"ra_uid", "abc"}, {"k", "v"}}, 64);
    const Bytes before = blk;
    EXPECT_EQ(set(blk, "ra_uid", bytes_of("abc")), 0);
    EXPECT_EQ(blk, before);
}

TEST(DatablkSet, EveryFailureLeavesTheBlockAsItWas) {
    Bytes blk = new_block(64);
    ASSERT_EQ(set(blk, "ra_uid", Bytes(30, 7)), 0); // 41 of 48 bytes used
    const Bytes before = blk;
    const std::string long_name(256, 'k');
    const uint8_t one = 1;
    struct Case {
        std::function<int()> call;
        std::string message; // "" for none; otherwise the exact line
    };
    const std::vector<Case> cases = {
        // The new pair needs 40 bytes: the 41 the old one would release do not count.
        {[&] { return set(blk, "ra_uid", Bytes(29, 8)); }, ""},
        {[&] { return set(blk, "new", Bytes(2, 8)); }, ""},
        {[&] { return pta20_datablk_set(DATABLK_MAGIC_CERT, nullptr, &one, 1, blk.data()); },
         "Invalid arguments: name = (null)\n"},
        {[&] { return pta20_datablk_set(DATABLK_MAGIC_CERT, "k", nullptr, 1, blk.data()); },
         "Invalid arguments: name = k\n"},
        {[&] { return pta20_datablk_set(DATABLK_MAGIC_CERT, "k", &one, 0, blk.data()); },
         "blk_set:Incorrect datablk length 0"},
        {[&] { return pta20_datablk_set(DATABLK_MAGIC_CERT, "k", &one, 0x3FFFF1, blk.data()); },
         "blk_set:Incorrect datablk length 3ffff1"},
        {[&] { return set(blk, "", {1}); }, "blk_set:Incorrect key name length 0"},
        {[&] { return set(blk, long_name, {1}); }, "blk_set:Incorrect key name length 256"},
        {[&] { return set(blk, "k", {1}, DATABLK_MAGIC_ATT); },
         "blk_set:Incorrect datablk magic id 0x49545441"},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const std::string out = capture_stdout([&] { EXPECT_EQ(cases[i].call(), -1) << i; });
        const std::string &m = cases[i].message;
        const size_t colon = m.find(':');
        if (m.empty() || m.back() == '\n') {
            EXPECT_EQ(out, m) << i;
        } else {
            EXPECT_TRUE(is_error(out, m.substr(0, colon), m.substr(colon + 1))) << i << out;
        }
        EXPECT_EQ(blk, before) << i;
    }
    EXPECT_EQ(capture_stdout([&] {
                  EXPECT_EQ(pta20_datablk_set(DATABLK_MAGIC_CERT, "k", &one, 1, nullptr), -1);
              }),
              "Invalid arguments: name = k\n");
}

TEST(DatablkSet, WrongCrcIsReportedAndThenReplaced) {
    Bytes blk = block_of({{"a", "1"}, {"b", "2"}}, 64);
    blk[11] = 0x00; // as the firmware block changes its format byte, leaving the CRC stale
    std::string out = capture_stdout([&] { EXPECT_EQ(get(blk, "a"), "<-1>"); });
    EXPECT_TRUE(is_error(out, "blk_getenv", "Data Block bad CRC")) << out;
    out = capture_stdout([&] { EXPECT_EQ(pta20_datablk_get_info(blk.data(), 1), -1); });
    EXPECT_TRUE(is_error(out, "pta20_datablk_get_info", "CRC error")) << out;

    // The key is found by name regardless of the CRC, and the block gets a correct one.
    out = capture_stdout([&] { EXPECT_EQ(set(blk, "a", bytes_of("111")), 0); });
    EXPECT_TRUE(is_error(out, "blk_getenv", "Data Block bad CRC")) << out;
    EXPECT_EQ(get(blk, "a"), "111");
    EXPECT_EQ(get(blk, "b"), "2");
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 16);

    blk[11] = 0x01;
    EXPECT_EQ(pta20_datablk_update_crc(DATABLK_MAGIC_FW, blk.data()), 0); // magic not checked
    EXPECT_EQ(get(blk, "a"), "111");
    EXPECT_EQ(pta20_datablk_update_crc(DATABLK_MAGIC_CERT, nullptr), -1);
}

TEST(DatablkGet, ReadsIntoTheCallersBuffer) {
    const Bytes blk = block_of({{"key", "value"}}, 64);
    char out[8];
    std::memset(out, '#', sizeof out);
    uint32_t len = sizeof out;
    // Any magic id reads: the get does not compare it.
    ASSERT_EQ(pta20_datablk_get(DATABLK_MAGIC_ATT, "key", out, &len, blk.data()), 0);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(std::string(out, sizeof out), std::string("value\0\0\0", 8));

    // Too small: -1, the capacity unchanged, the buffer zeroed, no message.
    std::memset(out, '#', sizeof out);
    len = 4;
    std::string printed =
        capture_stdout([&] { EXPECT_EQ(pta20_datablk_get(0, "key", out, &len, blk.data()), -1); });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(std::string(out, 4), std::string(4, '\0'));
    EXPECT_EQ(out[4], '#');

    printed = capture_stdout([&] {
        EXPECT_EQ(get(blk, "missing"), "<-1>");
        EXPECT_EQ(get(blk, "ke"), "<-1>");
        len = 8;
        EXPECT_EQ(pta20_datablk_get(0, "key", out, &len, nullptr), -1);
    });
    EXPECT_EQ(printed, "");
}

TEST(DatablkGet, RefusesBadArguments) {
    const Bytes blk = block_of({{"key", "value"}}, 64);
    char out[8];
    uint32_t len = 0;
    std::string printed =
        capture_stdout([&] { EXPECT_EQ(pta20_datablk_get(0, "key", out, &len, blk.data()), -1); });
    EXPECT_TRUE(is_error(printed, "blk_get", "Incorrect datablk length 0")) << printed;
    len = 0x400000;
    printed =
        capture_stdout([&] { EXPECT_EQ(pta20_datablk_get(0, "key", out, &len, blk.data()), -1); });
    EXPECT_TRUE(is_error(printed, "blk_get", "Incorrect datablk length 400000")) << printed;
    len = 8;
    printed = capture_stdout([&] {
        EXPECT_EQ(pta20_datablk_get(0, std::string(256, 'k').c_str(), out, &len, blk.data()), -1);
    });
    EXPECT_TRUE(is_error(printed, "blk_get", "Incorrect key name length 256")) << printed;

    printed = capture_stdout([&] {
        EXPECT_EQ(pta20_datablk_get(0, nullptr, out, &len, blk.data()), -1);
        EXPECT_EQ(pta20_datablk_get(0, "key", nullptr, &len, blk.data()), -1);
        EXPECT_EQ(pta20_datablk_get(0, "key", out, nullptr, blk.data()), -1);
    });
    char data_ptr[32];
    std::snprintf(data_ptr, sizeof data_ptr, "%p", static_cast<void *>(out));
    EXPECT_EQ(printed, "Invalid arguments: name = (null), data = " + std::string(data_ptr) +
                           "\nInvalid arguments: name = key, data = (nil)\n"
                           "Invalid arguments: name = key, data = " +
                           data_ptr + "\n");
}

TEST(DatablkInfo, ReportsSizesAndTheCrc) {
    Bytes blk = new_block(64);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), 0);
    ASSERT_EQ(set(blk, "k", Bytes(42, 1)), 0); // 2 + 1 + 2 + 1 + 42: the whole data area
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_USED_LEN), -1);
    EXPECT_EQ(pta20_datablk_get_info(blk.data(), DATABLK_INFO_MAX_LEN), 48);
    EXPECT_EQ(static_cast<uint32_t>(pta20_datablk_get_info(blk.data(), DATABLK_INFO_CRC)),
              le32(blk.data()));
    EXPECT_EQ(get(blk, "k"), std::string(42, '\1'));

    for (int32_t opt : {0, 3, 5, -1}) {
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(pta20_datablk_get_info(blk.data(), opt), -1); });
        EXPECT_TRUE(is_error(out, "pta20_datablk_get_info",
                             "Invalid argument opt (" + std::to_string(opt) + ")"))
            << out;
    }
    EXPECT_EQ(pta20_datablk_get_info(nullptr, DATABLK_INFO_MAX_LEN), -1);
}

} // namespace
