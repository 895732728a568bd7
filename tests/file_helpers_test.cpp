// SPDX-License-Identifier: Apache-2.0
// Whole-file reads, buffer writes and the bounded string copy.
#include "core/fault_injection.hpp"
#include "support/test_env.hpp"

#include <cstdlib>
#include <cstring>

using namespace karst::test;

namespace {

class FileHelpersTest : public KarstTest {};

TEST_F(FileHelpersTest, ReadbinReadsWholeFilesOfAnySize) {
    const std::string p = path("/tmp/data.bin");
    for (size_t size : {0u, 1u, 1023u, 1024u, 2500u, 70000u}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            data[i] = static_cast<char>(i * 7 + 3);
        }
        write_file(p, data);
        uint8_t *buf = nullptr;
        uint32_t got = 12345;
        ASSERT_EQ(readbin(p.c_str(), &buf, &got), 0) << size;
        ASSERT_NE(buf, nullptr) << "an empty file still gets a buffer to free";
        EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), got), data);
        std::free(buf);
    }
}

// What cannot be read or written: a missing file, a directory (it opens but cannot be read
// whole), a file in a missing directory. Nothing is returned to free.
TEST_F(FileHelpersTest, WhatCannotBeReadOrWrittenIsReported) {
    const std::string missing = path("/tmp/missing.bin"), bad = path("/tmp/no/dir/out.bin");
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    int rc = 0;
    std::string out = capture_stdout([&] { rc = readbin(missing.c_str(), &buf, &size); });
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to open file:)" + missing + "\n"));
    EXPECT_EQ(buf, nullptr);
    out = capture_stdout([&] { rc += readbin(path("/tmp").c_str(), &buf, &size); });
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to read all data\n)"));
    EXPECT_EQ(buf, nullptr);
    write_file(missing, "data");
    karst::fault::arm(karst::fault::Kind::heap, 1);
    out = capture_stdout([&] { rc += readbin(missing.c_str(), &buf, &size); });
    karst::fault::disarm();
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to allocate buffer\n)")) << out;
    EXPECT_EQ(buf, nullptr);
    out = capture_stdout([&] { rc += writebin(bad.c_str(), "abc", 3); });
    EXPECT_TRUE(matches(out, R"(\[E:writebin:\d+\] Failed to open file:)" + bad + "\n"));
    EXPECT_EQ(rc, -4);
}

TEST_F(FileHelpersTest, WritebinReplacesTheWholeFile) {
    const std::string p = path("/tmp/out.bin");
    write_file(p, std::string(5000, 'x'));
    ASSERT_EQ(writebin(p.c_str(), "abc", 3), 0);
    EXPECT_EQ(read_file(p), "abc");
    ASSERT_EQ(writebin(p.c_str(), nullptr, 0), 0);
    EXPECT_EQ(read_file(p), "");
}

TEST(Xstrcpy, CutsWithAWarningWhenTheFieldIsTooSmall) {
    const std::string warning =
        "[xstrcpy] the length is too small.\n[xstrcpy] src string is abcdef\n";
    const std::pair<int, const char *> cases[] = {
        {4, "abc"}, {6, "abcde"}, {7, "abcdef"}, {1, ""}, {64, "abcdef"}};
    for (const auto &[capacity, expected] : cases) {
        char field[80];
        std::memset(field, '#', sizeof field);
        const int n = capacity;
        const std::string out = capture_stdout([&] { xstrcpy(field, "abcdef", n); });
        EXPECT_STREQ(field, expected) << capacity;
        EXPECT_EQ(out, capacity < 7 ? warning : "") << capacity;
        EXPECT_EQ(field[capacity], '#') << "wrote past the field of " << capacity;
    }
}

} // namespace
