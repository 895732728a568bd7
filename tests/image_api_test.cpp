// SPDX-License-Identifier: Apache-2.0
// The image calls, exported and behind dispatcher numbers 0 to 3, 10 and 31 to 33: checks before
// the session, what reaches the secure world and what comes back, busy retries and their log
// lines, the dumps before an update, and the active BMC image on the eMMC.
#include "core/exchange.hpp"
#include "core/session_scope.hpp"
#include "support/blocks.hpp"
#include "support/image_files.hpp"
#include "support/sweep_session.hpp"
#include "support/test_env.hpp"

#include <filesystem>
#include <numeric>

using namespace karst::test;

namespace {

using Lines = std::vector<std::string>;
const uint32_t BUSY = 0xFFFFFFFE; // the secure world is busy with an image

// The journal: "command types a,b size/flags" of each invoke (a value, then memory), in hex.
Lines sent() {
    Lines all;
    for (const auto &r : journal()) {
        char s[64];
        std::snprintf(s, sizeof s, "%u %x %x,%x %zx/%x", r.command, r.param_types, r.params[0].a,
                      r.params[0].b, r.params[1].size, r.params[1].flags);
        all.push_back(s);
    }
    return all;
}

class ImageApiTest : public KarstTest {
  protected:
    // Dispatcher number with the caller's words, in a session of its own; its output in out_.
    int run(uint32_t number, uint32_t img_id, uint32_t flags, const void *arg = nullptr,
            uint32_t size = 0) {
        uintptr_t block[PTA20_ARGS_WORDS];
        pta20_args(block, img_id, flags, 0, reinterpret_cast<uintptr_t>(arg), size, 0);
        return printing([&] { return in_session([&] { return pta_invoke_cmd(number, block); }); });
    }
    int printing(const std::function<int()> &fn) {
        int rc = 0;
        out_ = capture_stdout([&] { rc = fn(); });
        return rc;
    }
    std::string out_;
};

TEST_F(ImageApiTest, AuthAndUploadRetryOnlyWhileBusy) {
    std::string image = image_bytes(512);
    // Busy answers, then this one (0: the secure world's own), the call's result and invokes,
    // and its logged line: "PTA_DALU_CMD_FW_<AUTH or UPLOAD> rc = ...".
    const std::tuple<size_t, uint32_t, int, size_t, const char *> rows[] = {
        {10, 0, -1, 1, "AUTH rc = ffffffff; retry left 10:10"},
        {10, 0, -2, 10, "UPLOAD rc = fffffffe; retry left 0:10"},
        {3, 0, 0, 4, "UPLOAD rc = 0; retry left 7:10"},
        {0, 0xFFFF000C, int(0xFFFF000C), 1, "UPLOAD rc = ffff000c; retry left 10:10"}};
    for (const auto &[busy, last, rc, invokes, logged] : rows) {
        karst_emu_reset();
        std::vector<uint32_t> script(busy, BUSY);
        script.push_back(last);
        karst_emu_script(KARST_EMU_INVOKE, script.data(), script.size());
        const auto fn = logged[0] == 'A' ? pta20_img_auth : pta20_img_upload;
        EXPECT_EQ(printing([&] { return fn(0x0201, IMG_SRC_BUFFER, image.data(), 512); }), rc);
        EXPECT_EQ(karst_emu_calls(KARST_EMU_INVOKE), invokes) << logged;
        EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 1u) << "one session for all attempts";
        EXPECT_TRUE(out_.ends_with("] PTA_DALU_CMD_FW_" + std::string(logged) + "\n")) << out_;
    }
}

// An update first dumps the device's image into the backup and evidence slots' files (size 0:
// the slot's whole size); then the slot's file is mapped for the command only, and the secure
// world's code comes back. A dump into a caller's file, a failed dump, deletes.
TEST_F(ImageApiTest, UpdateDumpAndDeleteCommands) {
    const std::string file = path("/nv1/cpld_staging.bin"), image = image_bytes(0x8000, 7);
    write_file(file, image);
    EXPECT_EQ(pta20_img_update(0x0201, IMG_FLAG_BACKUP | IMG_FLAG_EVIDENCE, nullptr, 0), 0);
    const std::string backup = read_file(path("/nv1/cpld_backup.bin"));
    EXPECT_TRUE(backup.starts_with("\x53\x00\x00\x02karst emulator factory CPLD") &&
                backup == read_file(path("/nv1/cpld_evidence.bin")));
    for (uint32_t code : {0u, TEEC_ERROR_GENERIC, BUSY}) {
        karst_emu_fail_nth(KARST_EMU_INVOKE, 1, code);
        EXPECT_EQ(run(PTA_DALU_CMD_FW_UPDATE, 0x0201, 0), static_cast<int>(code));
        EXPECT_EQ(mappings_of(file), 0);
    }
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0202, 0, nullptr, 0x8000), 0);
    EXPECT_TRUE(read_file(path("/nv1/cpld_backup.bin")) == image) << "the device's new image";
    const std::string own = path("/tmp/my dump.bin"); // a caller's file and length
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0C04, IMG_SRC_FILE, own.c_str(), 0x1000), 0);
    EXPECT_EQ(read_file(own).size(), 0x1000u);
    write_file(path("/nv1/bios_backup.bin"), "previous"); // a failed dump leaves it
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_BUSY);
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, 0, nullptr, 0x100), int(TEEC_ERROR_BUSY));
    EXPECT_EQ(read_file(path("/nv1/bios_backup.bin")), "previous");
    const std::string unwritable = path("/no/such/dir/dump.bin");
    EXPECT_EQ(run(PTA_DALU_CMD_FW_DUMP, 0x0102, IMG_SRC_FILE, unwritable.c_str(), 0x100), -1);
    EXPECT_EQ(out_, "Failed to open file:" + unwritable + "\n");
    for (uint32_t img : {0x0001u, 0x0002u, 0x0101u, 0x0102u, 0x0201u, 0x0202u}) {
        EXPECT_EQ(run(PTA_DALU_CMD_FW_DELETE, img, 0x7), 0) << std::hex << img;
    }
    EXPECT_EQ(sent(), Lines({"3 c1 202,0 40000/2", "3 c1 204,0 40000/2", "2 c1 201,18 8000/1",
                             "2 c1 201,0 8000/1", "2 c1 201,0 8000/1", "2 c1 201,0 8000/1",
                             "3 c1 202,0 8000/2", "3 c1 c04,2 1000/2", "3 c1 102,0 100/2",
                             "3 c1 102,2 100/2", "10 1 1,7 0/0", "10 1 2,7 0/0", "10 1 101,7 0/0",
                             "10 1 102,7 0/0", "10 1 201,7 0/0", "10 1 202,7 0/0"}));
    karst_emu_fail_nth(KARST_EMU_INVOKE, 2, TEEC_ERROR_GENERIC); // the update after the dump
    EXPECT_EQ(printing([] { return pta20_img_update(0x0201, IMG_FLAG_EVIDENCE, nullptr, 0); }), -1);
}

TEST_F(ImageApiTest, RefusalsBeforeTheSecureWorld) {
    char x[] = "x";
    const auto five = [&](uint32_t img) {
        return std::vector{pta20_img_auth(img, 1, x, 1), pta20_img_upload(img, 1, x, 1),
                           pta20_img_dump(img, 0, x, 0), pta20_img_delete(img, 0),
                           pta20_img_update(img, 0, x, 0)};
    };
    for (uint32_t img : {0x1801u, 0x010Fu, 0xFF00u}) { // type 24, slot 15, type 255
        EXPECT_EQ(five(img), std::vector(5, -1)) << std::hex << img;
    }
    EXPECT_EQ(pta20_img_dump(0x0103, 0, nullptr, 0), -1) << "a golden slot of the table";
    EXPECT_EQ(pta20_img_delete(0x0003, 0), -1) << "only staging and backup are deleted";
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), 0u);
    ASSERT_EQ(pta_open_session(), 0u); // the session is busy: every call fails
    EXPECT_EQ(printing([&] { return int(five(0x0101) == std::vector(5, -1)); }), 1);
    pta_close_session();
    // Refused before the secure world (number, image word, flags): auth, upload and update of a
    // missing file or of type 24; dumps of types without one, of slots without a file, from
    // other sources; deletes of other slots and types; key blocks of types without a key list or
    // without the image.
    const std::tuple<uint32_t, uint32_t, uint32_t> refusals[] = {
        {0, 0x0104, 0},  {1, 0x0104, 0},  {2, 0x0104, 0},  {0, 0x1801, 0},  {1, 0x1801, 0},
        {2, 0x1801, 0},  {3, 0x0103, 0},  {3, 0x0002, 0},  {3, 0x0302, 0},  {3, 0x1502, 0},
        {3, 0x1602, 0},  {3, 0x1702, 0},  {3, 0x0105, 0},  {3, 0x010F, 0},  {3, 0x0102, 1},
        {3, 0x0102, 2},  {3, 0x0102, 3},  {10, 0x0004, 0}, {10, 0x0003, 0}, {10, 0x0000, 0},
        {10, 0x0901, 0}, {10, 0x0301, 0}, {31, 0x1601, 0}, {31, 0x1701, 0}, {31, 0x0101, 0}};
    for (const auto &[number, img, flags] : refusals) {
        EXPECT_EQ(run(number, img, flags), -1) << number << ' ' << std::hex << img << ' ' << flags;
    }
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

// The active BMC image is the two eMMC regions, one behind the other, in a read-only file made
// afresh. An image with its own offset in every word, programmed across both regions by an
// update, is what the dump returns.
TEST_F(ImageApiTest, ActiveBmcImageIsTheTwoRegions) {
    std::vector<uint32_t> words(0x3000000 / 4); // each its own; the first, 53 00 00 00, signed
    std::iota(words.begin(), words.end(), 0x53);
    const std::string bmc(reinterpret_cast<const char *>(words.data()), words.size() * 4);
    write_file(path("/nv1/bmc_staging.bin"), bmc);
    karst_emu_program_rate(0);
    // The BMC has no dump command: a backup is refused (-1), the update still runs.
    EXPECT_EQ(printing([] { return pta20_img_update(0x0001, IMG_FLAG_BACKUP, nullptr, 0); }), -1);
    EXPECT_EQ(sent(), Lines{"2 c1 1,8 3000000/1"});
    EXPECT_EQ(printing([] { return pta20_img_dump(0x0000, 0x7, nullptr, 5); }), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 1u) << "the update's session, none for the dump";
    const std::string image = read_file(path("/tmp/fw_image"));
    EXPECT_TRUE(image.size() == 0x4000000 && image.compare(0, bmc.size(), bmc) == 0);
    EXPECT_EQ(std::filesystem::status(path("/tmp/fw_image")).permissions(),
              std::filesystem::perms(0444));

    // Without the eMMC dd leaves no file: both lines, -1.
    std::filesystem::remove(path("/dev/mmcblk0"));
    EXPECT_EQ(printing([] { return pta20_img_dump(0x0000, 0, nullptr, 0); }), -1);
    const std::string error = R"(\[Error [0-9a-f]+ UtilPTA20\.cpp:\d+\] )";
    EXPECT_TRUE(matches(out_, error + "BMC active FW failed to dump!\\n" + error +
                                  "Failed to dump active BMC FW image!\\n"));
}

TEST_F(ImageApiTest, AuthWithTheKeyDataBlock) {
    const std::string image = image_bytes(0x2000);
    for (uint32_t number : {31u, 32u, 33u}) {
        EXPECT_EQ(run(number, 0x0001, IMG_SRC_BUFFER, image.data(), 0x2000), 0) << number;
    }
    write_file(path("/nv1/nvbios_staging.bin"), image_bytes(0x1000));
    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH_DBLK, 0x0C01, 0), 0) << "a type without a key list";
    EXPECT_EQ(sent(), Lines({"31 cc 0,0 2000/1", "31 cc 0,0 2000/1", "31 cc 0,0 2000/1",
                             "31 cc 0,0 1000/1"}));
    const auto records = journal();
    const karst_emu_param &blk = records[2].params[0], &img = records[2].params[1];
    EXPECT_TRUE(std::string(img.input, img.input + img.input_kept) == image) << "the caller's";
    ASSERT_EQ(std::tie(blk.input_kept, blk.flags), std::tuple(size_t{65536}, TEEC_MEM_INPUT));
    // Magic "DBRT", format 01 01 00 00 (the secure world checks the CRC: it covers the format
    // change), data length; "fw_img" = the image word, "key_name_list" = 02 00, nothing else.
    EXPECT_EQ(hex(blk.input + 4, 12 + 35 + 4),
              "44 42 52 54 01 01 00 00 00 00 ff f0 16 06 66 77 5f 69 6d 67 02 01 04 01 00 00 00 16 "
              "0d 6b 65 79 5f 6e 61 6d 65 5f 6c 69 73 74 02 01 02 02 00 00 00 00 00");
    EXPECT_EQ(pta20_datablk_get_info(records[3].params[0].input, DATABLK_INFO_USED_LEN), 15);
    // The secure world reads the image word little-endian: a word naming type 0x18 is refused.
    std::string block(blk.input, blk.input + blk.input_kept);
    block[block.find("fw_img") + 10] = 0x18;
    ASSERT_EQ(pta20_datablk_update_crc(DATABLK_MAGIC_FW, block.data()), 0);
    {
        const karst::tee::SessionScope session;
        karst::tee::Exchange tee;
        ASSERT_TRUE(tee.share(0, block.data(), block.size(), TEEC_MEM_INPUT) &&
                    tee.share(1, const_cast<char *>(image.data()), image.size(), TEEC_MEM_INPUT));
        EXPECT_FALSE(capture_stdout([&] { tee.invoke(PTA_DALU_CMD_FW_AUTH_DBLK); }).empty());
        EXPECT_EQ(tee.code(), static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    }

    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH_DBLK, 0xFF01, IMG_SRC_BUFFER, "x", 1), -1);
    EXPECT_TRUE(matches(out_, R"(\[E:pta_invoke_fw_auth_dblk:\d+\] Image name is not available)"));
    // The format byte is changed after creation: the first store finds the CRC stale.
    EXPECT_EQ(run(PTA_DALU_CMD_FW_AUTH_DBLK, 0x0101, 0), -1) << "no staging file";
    EXPECT_TRUE(matches(out_, R"(\[E:blk_getenv:\d+\] Data Block bad CRC\n)"
                              R"(\[E:pta_invoke_fw_auth_dblk:\d+\] pta_mmap_img failed\. )"
                              R"(Couldn't fetch the image from the mentioned payload\.\n)"));
}

} // namespace
