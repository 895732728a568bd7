// Whole-file reads, buffer writes and the bounded string copy.
#include "support/test_env.hpp"

#include <cstdlib>
#include <cstring>
#include <regex>
#include <sys/stat.h>

using namespace karst::test;

namespace {

class FileHelpersTest : public KarstTest {};

TEST_F(FileHelpersTest, ReadbinReadsWholeFilesOfAnySize) {
    for (size_t size : {0u, 1u, 1023u, 1024u, 2500u, 70000u}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            data[i] = static_cast<char>(i * 7 + 3);
        }
        const std::string p = path("/tmp/data.bin");
        write_file(p, data);
        uint8_t *buf = nullptr;
        uint32_t got = 12345;
        ASSERT_EQ(readbin(p.c_str(), &buf, &got), 0) << size;
        ASSERT_NE(buf, nullptr) << "an empty file still gets a buffer to free";
        EXPECT_EQ(got, size);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), got), data);
        std::free(buf);
    }
}

TEST_F(FileHelpersTest, ReadbinReportsWhatCannotBeRead) {
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    const std::string missing = path("/tmp/missing.bin");
    std::string out = capture_stdout([&] { EXPECT_EQ(readbin(missing.c_str(), &buf, &size), -1); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[E:readbin:\d+\] Failed to open file:)" + missing + "\n")))
        << out;
    EXPECT_EQ(buf, nullptr);

    // A directory opens but cannot be read whole.
    const std::string dir = path("/tmp");
    out = capture_stdout([&] { EXPECT_EQ(readbin(dir.c_str(), &buf, &size), -1); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[E:readbin:\d+\] Failed to read all data\n)")))
        << out;
    EXPECT_EQ(buf, nullptr);
}

TEST_F(FileHelpersTest, WritebinReplacesTheWholeFile) {
    const std::string p = path("/tmp/out.bin");
    write_file(p, std::string(5000, 'x'));
    ASSERT_EQ(writebin(p.c_str(), "abc", 3), 0);
    EXPECT_EQ(read_file(p), "abc");
    ASSERT_EQ(writebin(p.c_str(), nullptr, 0), 0);
    EXPECT_EQ(read_file(p), "");

    const std::string bad = path("/tmp/no/such/dir/out.bin");
    const std::string out = capture_stdout([&] { EXPECT_EQ(writebin(bad.c_str(), "abc", 3), -1); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[E:writebin:\d+\] Failed to open file:)" + bad + "\n")))
        << out;
}

TEST(Xstrcpy, CutsWithAWarningWhenTheFieldIsTooSmall) {
    struct Case {
        int capacity;
        const char *expected;
        bool warns;
    };
    for (const Case &c : {Case{4, "abc", true}, Case{6, "abcde", true}, Case{7, "abcdef", false},
                          Case{1, "", true}, Case{64, "abcdef", false}}) {
        char field[80];
        std::memset(field, '#', sizeof field);
        const std::string out = capture_stdout([&] { xstrcpy(field, "abcdef", c.capacity); });
        EXPECT_STREQ(field, c.expected) << c.capacity;
        if (c.warns) {
            EXPECT_EQ(out, "[xstrcpy] the length is too small.\n[xstrcpy] src string is abcdef\n");
        } else {
            EXPECT_EQ(out, "");
        }
        EXPECT_EQ(field[c.capacity], '#') << "wrote past the field of " << c.capacity;
    }
}

} // namespace
