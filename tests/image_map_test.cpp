// The mapping of image bytes: the sources, the size
// rules checked against real files, and the deterministic extended copy.
#include "images/image_map.hpp"
#include "images/image_table.hpp"
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <cstring>
#include <regex>
#include <sys/stat.h>

using namespace karst::test;
using karst::images::image_slot;
using karst::images::pta_mmap_img;

namespace {

class ImageMapTest : public KarstTest {};

TEST_F(ImageMapTest, SlotFileIsMappedWholeWhateverSizeWasAsked) {
    const std::string content = image_bytes(0x100000);
    write_file(path("/nv1/bios_staging.bin"), content);
    for (uint32_t asked : {0u, 0x1000u, 0x4000000u}) {
        uint32_t size = asked;
        std::string out;
        {
            karst::images::MappedImage image;
            out = capture_stdout([&] { image = pta_mmap_img(0x0101, 0, nullptr, &size); });
            ASSERT_TRUE(image);
            EXPECT_EQ(size, 0x100000u);
            EXPECT_EQ(std::memcmp(image.data(), content.data(), content.size()), 0);
            EXPECT_EQ(mappings_of(path("/nv1/bios_staging.bin")), 1);
            // Private: writes stay in the mapping.
            static_cast<char *>(image.data())[0] = 'Z';
        }
        EXPECT_EQ(mappings_of(path("/nv1/bios_staging.bin")), 0);
        EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[I:pta_mmap_img:\d+\] mapping )" +
                                                     path("/nv1/bios_staging.bin") +
                                                     R"(, size 0x100000, offset 0x0 success\n)")))
            << out;
    }
    EXPECT_EQ(read_file(path("/nv1/bios_staging.bin")), content);
}

TEST_F(ImageMapTest, FileLimitsAreThoseOfTheSlot) {
    // CPLD staging: at most 0x40000 bytes.
    make_sized_file(path("/nv1/cpld_staging.bin"), 0x40001, "x");
    uint32_t size = 0;
    std::string out =
        capture_stdout([&] { EXPECT_FALSE(pta_mmap_img(0x0201, 0, nullptr, &size)); });
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\[E:pta_mmap_img:\d+\] Mmap .*/nv1/cpld_staging\.bin failed because of )"
                        R"(file_stat\.st_size\(40001\) > pimg->size\(40000\)\n)")))
        << out;
    make_sized_file(path("/nv1/cpld_staging.bin"), 0x40000, "x");
    capture_stdout([&] { EXPECT_TRUE(pta_mmap_img(0x0201, 0, nullptr, &size)); });
    EXPECT_EQ(size, 0x40000u);

    // The backplane CPLD's staging file may be a whole 64 MiB; its backup may not.
    make_sized_file(path("/nv1/bpncpld_staging.bin"), 0x4000000);
    make_sized_file(path("/nv1/bpncpld_backup.bin"), 0x40001);
    capture_stdout([&] {
        EXPECT_TRUE(pta_mmap_img(0x0301, 0, nullptr, &size));
        EXPECT_EQ(size, 0x4000000u);
        EXPECT_FALSE(pta_mmap_img(0x0302, 0, nullptr, &size));
    });

    // An empty or missing file maps nothing, silently.
    make_sized_file(path("/nv1/nvbios_staging.bin"), 0);
    out = capture_stdout([&] {
        EXPECT_FALSE(pta_mmap_img(0x0C01, 0, nullptr, &size));
        EXPECT_FALSE(pta_mmap_img(0x0C02, 0, nullptr, &size));
    });
    EXPECT_EQ(out, "");
}

TEST_F(ImageMapTest, GoldenRegionsOfThePartition) {
    const std::string partition = path("/dev/mmcblk0p2");
    uint32_t size = 0;
    std::string out;
    {
        karst::images::MappedImage image;
        out = capture_stdout([&] { image = pta_mmap_img(0x0103, 0, nullptr, &size); });
        ASSERT_TRUE(image);
        EXPECT_EQ(size, 0x4000000u);
        EXPECT_EQ(std::memcmp(image.data(), "\x53\x00\x00\x01karst emulator golden BIOS", 30), 0);
    }
    EXPECT_NE(out.find("] mapping " + partition + ", size 0x4000000, offset 0x4200000 success\n"),
              std::string::npos)
        << out;

    size = 0x1000;
    capture_stdout([&] {
        const auto image = pta_mmap_img(0x0203, 0, nullptr, &size);
        ASSERT_TRUE(image);
        EXPECT_EQ(size, 0x1000u);
        EXPECT_EQ(std::memcmp(image.data(), "\x53\x00\x00\x02karst emulator golden CPLD", 30), 0);
    });

    // A length that would run past the partition's end is refused rather than mapped.
    size = 0x800000;
    EXPECT_FALSE(pta_mmap_img(0x0203, 0, nullptr, &size));

    // A caller's file in place of the partition: the region's offset applies to it.
    const std::string own = path("/tmp/own_partition.bin");
    make_sized_file(own, 0x4200000 + 0x2000);
    size = 0x2000;
    capture_stdout([&] {
        EXPECT_TRUE(pta_mmap_img(0x0103, IMG_SRC_FILE, const_cast<char *>(own.c_str()), &size));
    });
}

TEST_F(ImageMapTest, CallerBufferIsUsedAsItIs) {
    char buffer[16] = {};
    uint32_t size = 0;
    std::string out = capture_stdout([&] {
        const auto image = pta_mmap_img(0x1700, IMG_SRC_BUFFER, buffer, &size);
        EXPECT_EQ(image.data(), buffer);
    });
    EXPECT_EQ(size, 0x40000u);
    EXPECT_EQ(out, "");
    size = 12;
    EXPECT_EQ(pta_mmap_img(0x1700, IMG_SRC_BUFFER, buffer, &size).data(), buffer);
    EXPECT_EQ(size, 12u);
    EXPECT_FALSE(pta_mmap_img(0x1700, IMG_SRC_BUFFER, nullptr, &size));
}

TEST_F(ImageMapTest, CallerFileIsCheckedAgainstTheSlot) {
    const std::string own = path("/tmp/upload me.bin"); // a caller's name, never prefixed
    write_file(own, image_bytes(0x3000));
    uint32_t size = 0;
    capture_stdout([&] {
        const auto image =
            pta_mmap_img(0x0201, IMG_SRC_FILE, const_cast<char *>(own.c_str()), &size);
        EXPECT_TRUE(image);
    });
    EXPECT_EQ(size, 0x3000u);
    EXPECT_FALSE(pta_mmap_img(0x0201, IMG_SRC_FILE, nullptr, &size));
    char empty[] = "";
    EXPECT_FALSE(pta_mmap_img(0x0201, IMG_SRC_FILE, empty, &size));
}

TEST_F(ImageMapTest, ExtendedCopyIsExactly32MiBAndGone) {
    const std::string content = image_bytes(0x123457);
    write_file(path("/nv1/nvbios_staging.bin"), content);
    // A stale, larger copy from earlier must not leak into this one.
    make_sized_file(path("/tmp/extended_buffer.bin"), 0x3000000, std::string(0x200000, 'S'));
    for (int round = 0; round < 2; ++round) {
        uint32_t size = 5;
        capture_stdout([&] {
            const auto image = pta_mmap_img(0x0C01, IMG_SRC_EXTENDED, nullptr, &size);
            ASSERT_TRUE(image);
            EXPECT_EQ(size, 0x2000000u);
            const auto *bytes = static_cast<const uint8_t *>(image.data());
            EXPECT_EQ(std::memcmp(bytes, content.data(), content.size()), 0);
            // Padded with zero bytes up to exactly 32 MiB.
            bool zero = true;
            for (size_t i = content.size(); i < size; i += 4093) {
                zero = zero && bytes[i] == 0;
            }
            EXPECT_TRUE(zero && bytes[size - 1] == 0);
        });
        struct stat st {};
        EXPECT_NE(stat(path("/tmp/extended_buffer.bin").c_str(), &st), 0)
            << "the copy's name is removed once it is mapped";
    }

    // A source larger than 32 MiB is cut; the slot's limit still applies to the copy.
    make_sized_file(path("/nv1/bios_staging.bin"), 0x3000000, "BIG");
    uint32_t size = 0;
    capture_stdout([&] {
        const auto image = pta_mmap_img(0x0101, IMG_SRC_EXTENDED, nullptr, &size);
        ASSERT_TRUE(image);
        EXPECT_EQ(size, 0x2000000u);
        EXPECT_EQ(std::memcmp(image.data(), "BIG", 3), 0);
    });
    write_file(path("/nv1/cpld_staging.bin"), "tiny");
    const std::string out = capture_stdout(
        [&] { EXPECT_FALSE(pta_mmap_img(0x0201, IMG_SRC_EXTENDED, nullptr, &size)); });
    EXPECT_NE(out.find("file_stat.st_size(2000000) > pimg->size(40000)"), std::string::npos);

    // No slot file: no copy, and no stale one is used.
    make_sized_file(path("/tmp/extended_buffer.bin"), 0x2000000);
    EXPECT_FALSE(pta_mmap_img(0x0901, IMG_SRC_EXTENDED, nullptr, &size));
    // Only file slots have an extended copy.
    EXPECT_FALSE(pta_mmap_img(0x0103, IMG_SRC_EXTENDED, nullptr, &size));
}

TEST_F(ImageMapTest, WhatCannotBeMapped) {
    write_file(path("/nv1/bios_staging.bin"), image_bytes(64));
    uint32_t size = 0;
    const std::string out = capture_stdout([&] {
        EXPECT_FALSE(pta_mmap_img(0x0501, 0, nullptr, &size));   // no table
        EXPECT_FALSE(pta_mmap_img(0x010F, 0, nullptr, &size));   // index 15
        EXPECT_FALSE(pta_mmap_img(0x0105, 0, nullptr, &size));   // empty slot
        EXPECT_FALSE(pta_mmap_img(0x0303, 0, nullptr, &size));   // no store
        EXPECT_FALSE(pta_mmap_img(0x1603, 0, nullptr, &size));   // no store
        EXPECT_FALSE(pta_mmap_img(0x0100, 0, nullptr, &size));   // active: no store
        EXPECT_FALSE(pta_mmap_img(0x0101, 0, nullptr, nullptr)); // no size
        for (uint32_t source = 4; source < 8; ++source) {
            EXPECT_FALSE(pta_mmap_img(0x0101, source, nullptr, &size)) << source;
        }
    });
    EXPECT_EQ(out, "");
    // Bits above the source are not the mapping's business.
    capture_stdout([&] { EXPECT_TRUE(pta_mmap_img(0xABCD0101, 0xFFFFFFF8, nullptr, &size)); });
}

} // namespace
