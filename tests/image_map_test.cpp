// SPDX-License-Identifier: Apache-2.0
// The mapping of an image's bytes: the slot's file or eMMC region within the slot's limits, the
// caller's buffer or file, and the extended copy of exactly 32 MiB.
#include "images/image_map.hpp"
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <unistd.h>

using namespace karst::test;
using karst::images::pta_mmap_img;

namespace {

class ImageMapTest : public KarstTest {
  protected:
    // Maps img from source flags; the size it reports, or 0 when it maps nothing.
    uint32_t mapped(uint32_t img, uint32_t flags = 0, const void *arg = nullptr,
                    uint32_t size = 0) {
        image_ = {};
        out_ = capture_stdout(
            [&] { image_ = pta_mmap_img(img, flags, const_cast<void *>(arg), &size); });
        return image_ ? size : 0;
    }
    const char *bytes() const { return static_cast<const char *>(image_.data()); }
    karst::images::MappedImage image_;
    std::string out_;
};

TEST_F(ImageMapTest, WhatIsMappedFromEachSource) {
    const std::string bios = image_bytes(0x100000), bios_file = path("/nv1/bios_staging.bin");
    write_file(bios_file, bios);
    EXPECT_EQ(mapped(0x0101, 0, nullptr, 0x1000), 0x100000u) << "a file whole, whatever is asked";
    EXPECT_TRUE(matches(out_, R"(\[I:pta_mmap_img:\d+\] mapping )" + bios_file +
                                  R"(, size 0x100000, offset 0x0 success\n)"));
    EXPECT_EQ(std::memcmp(bytes(), bios.data(), bios.size()), 0);
    const_cast<char *>(bytes())[0] = 'Z'; // private: writes stay in the mapping
    EXPECT_EQ(mappings_of(bios_file), 1);
    image_ = {};
    EXPECT_EQ(mappings_of(bios_file), 0);
    EXPECT_TRUE(read_file(bios_file) == bios);
    EXPECT_EQ(mapped(0x0103), 0x4000000u) << "the golden slot: its region of the partition";
    EXPECT_EQ(std::memcmp(bytes(), "\x53\x00\x00\x01karst emulator golden BIOS", 30), 0);

    make_sized_file(path("/nv1/cpld_staging.bin"), 0x40000);
    make_sized_file(path("/nv1/bpncpld_staging.bin"), 0x4000000);
    make_sized_file(path("/nv1/nvbios_staging.bin"), 0);
    const std::string own = path("/tmp/upload me.bin"), part = path("/tmp/partition.bin");
    make_sized_file(own, 0x3000);
    make_sized_file(part, 0x4200000 + 0x2000);
    // Image word, flags, argument, size asked, size mapped: a file up to the slot's size; a region
    // of the partition, or of a file in its place, not past its end (0: nothing, silently); a
    // caller's file as named; a buffer of the size asked, or the slot's.
    const std::tuple<uint32_t, uint32_t, const char *, uint32_t, uint32_t> rows[] = {
        {0x0201, 0, nullptr, 0, 0x40000},          {0x0301, 0, nullptr, 0, 0x4000000},
        {0x0203, 0, nullptr, 0x1000, 0x1000},      {0x0203, 0, nullptr, 0x800000, 0},
        {0x0103, 2, part.c_str(), 0x2000, 0x2000}, {0x0103, 2, part.c_str(), 0x2001, 0},
        {0x0201, 2, own.c_str(), 0, 0x3000},       {0x1700, 1, bios.data(), 0, 0x40000},
        {0x1700, 1, bios.data(), 0x100, 0x100}};
    for (const auto &[img, flags, arg, asked, size] : rows) {
        EXPECT_EQ(mapped(img, flags, arg, asked), size) << std::hex << img << ' ' << flags;
        EXPECT_EQ(out_.empty(), size == 0 || flags == IMG_SRC_BUFFER) << out_; // the mapping's line
    }
    EXPECT_EQ(image_.data(), bios.data()) << "the caller's buffer as it is";
    // Nothing, silently: an empty or a missing file, no table, slot 15, an empty slot, no store
    // the library opens, sources 4 to 7, no file or buffer of the caller's, no size.
    const std::tuple<uint32_t, uint32_t, const char *> refused[] = {
        {0x0C01, 0, nullptr}, {0x0C02, 0, nullptr}, {0x0501, 0, nullptr}, {0x010F, 0, nullptr},
        {0x0105, 0, nullptr}, {0x0303, 0, nullptr}, {0x1603, 0, nullptr}, {0x0100, 0, nullptr},
        {0x0101, 4, nullptr}, {0x0101, 5, nullptr}, {0x0101, 6, nullptr}, {0x0101, 7, nullptr},
        {0x0201, 2, nullptr}, {0x0201, 2, ""},      {0x1700, 1, nullptr}};
    for (const auto &[img, flags, arg] : refused) {
        EXPECT_EQ(mapped(img, flags, arg), 0u) << std::hex << img << ' ' << flags;
        EXPECT_EQ(out_, "");
    }
    EXPECT_EQ(mapped(0xABCD0101, 0xFFFFFFF8), 0x100000u) << "bits above the word and the source";
    make_sized_file(path("/nv1/cpld_staging.bin"), 0x40001); // above the slot's limit
    EXPECT_EQ(mapped(0x0201), 0u);
    EXPECT_TRUE(matches(out_, R"(\[E:pta_mmap_img:\d+\] Mmap )" + path("/nv1/cpld_staging.bin") +
                                  R"( failed because of file_stat\.st_size\(40001\) > )"
                                  R"(pimg->size\(40000\)\n)"));
}

// The slot's file, cut or padded with zero bytes to 32 MiB, in a copy whose name is gone once it
// is mapped; a stale copy never leaks in.
TEST_F(ImageMapTest, ExtendedCopyIsExactly32MiBAndGone) {
    const std::string content = image_bytes(0x123457), copy = path("/tmp/extended_buffer.bin");
    write_file(path("/nv1/nvbios_staging.bin"), content);
    make_sized_file(copy, 0x3000000, std::string(0x200000, 'S'));
    const std::string padded = content + std::string(0x2000000 - content.size(), '\0');
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(mapped(0x0C01, IMG_SRC_EXTENDED, nullptr, 5), 0x2000000u);
        EXPECT_TRUE(std::string_view(bytes(), padded.size()) == padded);
        EXPECT_NE(access(copy.c_str(), F_OK), 0) << "the copy's name is removed once it is mapped";
    }
    make_sized_file(path("/nv1/bios_staging.bin"), 0x3000000, "BIG"); // cut to 32 MiB
    ASSERT_EQ(mapped(0x0101, IMG_SRC_EXTENDED), 0x2000000u);
    EXPECT_EQ(std::memcmp(bytes(), "BIG", 3), 0);
    write_file(path("/nv1/cpld_staging.bin"), "tiny"); // the slot's limit applies to the copy
    EXPECT_EQ(mapped(0x0201, IMG_SRC_EXTENDED), 0u);
    EXPECT_NE(out_.find("file_stat.st_size(2000000) > pimg->size(40000)"), std::string::npos);
    // No slot file: no copy, and no stale one is used. Only file slots have an extended copy.
    make_sized_file(copy, 0x2000000);
    EXPECT_EQ(mapped(0x0901, IMG_SRC_EXTENDED), 0u);
    EXPECT_EQ(mapped(0x0103, IMG_SRC_EXTENDED), 0u);
}

} // namespace
