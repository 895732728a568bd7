// The progress line parser and the progress files of the five types that have one.
#include "images/progress_line.hpp"
#include "support/test_env.hpp"

#include <regex>

using namespace karst::test;
using karst::images::parse_progress_line;

namespace {

TEST(ProgressLine, GoodLines) {
    EXPECT_EQ(parse_progress_line("written: 1024, total: 2048, 50%"), 50);
    EXPECT_EQ(parse_progress_line("written: 1048576, total: 67108864, 1%\n"), 1);
    EXPECT_EQ(parse_progress_line("written: 0, total: 0, 0%"), 0);
    EXPECT_EQ(parse_progress_line("written: 9, total: 9, 100%"), 100);
    // Text before the first marker, and any one character where a space stands.
    EXPECT_EQ(parse_progress_line("fw: written:_1,_total:_2,_77%"), 77);
    // The percentage is read as atoi reads it.
    EXPECT_EQ(parse_progress_line("written: 1, total: 2,  42abc%"), 42);
    EXPECT_EQ(parse_progress_line("written: 1, total: 2, x%"), 0);
    EXPECT_EQ(parse_progress_line("written: 1, total: 2, -7%"), -7);
    EXPECT_EQ(parse_progress_line("written: 1, total: 2, 999999999999999%"), 2147483647);
    // Fields of exactly 15 characters are accepted.
    EXPECT_EQ(parse_progress_line("written: 123456789012345, total: 123456789012345, "
                                  "000000000000033%"),
              33);
}

TEST(ProgressLine, BrokenLines) {
    const char *broken[] = {
        "",
        "total: 2048, 50%",                              // no "written:"
        "written: 1024, 2048, 50%",                      // no "total:"
        "written: 1024, total: 2048 50%",                // no "," after "total:"
        "written: 1024, total: 2048, 50",                // no "%"
        "written: 1024, total: 2048, 0000000000000050%", // percentage of 16 characters
        "written: 1234567890123456, total: 2048, 50%",   // written of 16 characters
        "written: 1, total: 1234567890123456, 50%",      // total of 16 characters
        "written:total:,%",                              // markers overlap
        "written: total: 5, 5%",                         // written field runs backwards
        "written: 1, total:, 5%",                        // total field runs backwards
        "written: 1, total: 2,%",                        // percentage runs backwards
        "%, total: written: 1",                          // markers out of order
    };
    for (const char *line : broken) {
        EXPECT_EQ(parse_progress_line(line), -1) << '"' << line << '"';
    }
}

class ProgressFileTest : public KarstTest {};

TEST_F(ProgressFileTest, TheFiveTypesAndTheirFiles) {
    const struct {
        uint32_t img;
        const char *name;
    } files[] = {{0x0101, "BIOS"},
                 {0x0200, "CPLD"},
                 {0x090E, "NVFPGA"},
                 {0x0C01, "NVC1BIOS"},
                 {0x1701, "NUVEROTMCU"}};
    for (const auto &f : files) {
        const std::string file = path(std::string("/tmp/fw-update-") + f.name + ".out");
        write_file(file, "written: 3, total: 4, 75%\nwritten: 4, total: 4, 100%\n");
        EXPECT_EQ(pta20_img_updmsg(f.img, 0), 75) << f.name;
        EXPECT_EQ(pta20_img_updmsg(f.img, 7), 75) << "any mode but 1 reads";
        std::string out = capture_stdout([&] { EXPECT_EQ(pta20_img_updmsg(f.img, 1), 0); });
        EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[Debug [0-9a-f]+ UtilPTA20\.cpp:\d+\] )"
                                                     R"(cmd: rm -f )" +
                                                     file + "\n")))
            << out;
        EXPECT_EQ(pta20_img_updmsg(f.img, 0), -1) << "removed";
        out = capture_stdout([&] { EXPECT_EQ(pta20_img_updmsg(f.img, 1), 0); });
        EXPECT_NE(out, "") << "removing a missing file still succeeds";
    }
    write_file(path("/tmp/fw-update-BIOS.out"), "");
    EXPECT_EQ(pta20_img_updmsg(0x0101, 0), -1) << "empty file";
    for (uint32_t img : {0x0001u, 0x0301u, 0x1501u, 0x1601u, 0x1801u, 0x010Fu}) {
        EXPECT_EQ(pta20_img_updmsg(img, 1), -1) << std::hex << img;
        EXPECT_EQ(pta20_img_updmsg(img, 0), -1) << std::hex << img;
    }
}

} // namespace
