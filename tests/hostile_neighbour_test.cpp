// SPDX-License-Identifier: Apache-2.0
// Hostile neighbours: whatever a local user plants at the board's fixed paths (a link to a file
// elsewhere, a FIFO, something of the wrong kind or mode), no call writes, removes, changes or
// leaks a file it did not mean, none stalls, and the next normal call works again.
#include "attestation/att_support.hpp"
#include "core/board_files.hpp"
#include "support/image_files.hpp"
#include "support/openssl_tools.hpp"
#include "support/sweep_session.hpp"

#include <chrono>
#include <filesystem>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace karst::test;
namespace fs = std::filesystem;

namespace {

const std::string SECRET = "secret of another file 4f1c";

// How the library uses a path: reads an existing file, makes a fresh file, uses a directory
// whole, or runs a program; and what can be planted there.
enum class Use { read, create, directory, program };
enum class Plant { link, fifo, wrong_kind, open_mode };

using Call = int (*)();

// What the calls of the table need in the run root: a REE data tool that makes nothing and the
// archive it would make, the evidence directories, RA data, a certificate, the inventory, a BIOS
// image and its update's progress.
void prepare(const std::string &root) {
    install_recording_tool(root, root + "/ree.log", "");
    make_tgz(root + "/tmp/ReeData.tgz", {{"nonce.txt", to_bytes("abc123")}});
    make_dirs(root + "/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins/dev");
    make_dirs(root + "/tmp/attestation");
    Bytes ra(66560);
    const Bytes cert = to_bytes("ra certificate");
    karst_emu_ra_issue(cert.data(), cert.size(), ra.data(), ra.size());
    make_tgz(root + "/nv1/ra_data.tgz", {{"ra_data.bin", ra}});
    write_bytes(root + "/tmp/cert.der", certificates().leaf);
    write_file(root + "/tmp/inventory.txt", "K=v\n");
    write_file(root + "/nv1/bios_staging.bin", image_bytes(4096));
    write_file(root + "/tmp/fw-update-BIOS.out", "written: 4, total: 10, 40%\n");
}

int att_dump() {
    return pta20_att_dump("abc123", nullptr, 0);
}
int ra_refresh() {
    return pta20_ra_refresh(nullptr, 0);
}
int ra_import() {
    const Bytes &cert = certificates().leaf;
    return pta20_ra_crt_replace_import(nullptr, cert.data(), static_cast<uint32_t>(cert.size()), 0);
}
int ra_replace() {
    const std::string cert = std::string(getenv("KARST_ROOT")) + "/tmp/cert.der";
    return in_session(
        [&] { return pta_invoke_replace_ra_crt(27, 1, nullptr, 0, cert.c_str(), nullptr, 0); });
}
int inventory_get_without_session() { // the value comes from the inventory file
    karst_emu_fail_nth(KARST_EMU_INIT, 1, TEEC_ERROR_ITEM_NOT_FOUND);
    char value[64] = {};
    return pta20_inventory_get("K", value, sizeof value);
}
int dump_mmc() {
    return pta20_img_dump(0x0000, 0, nullptr, 0);
}

const struct Row {
    const char *path;
    Use use;
    int ok, refused; // the call's result normally, and when the path cannot be used
    Call call;
} ROWS[] = {
    {"/tmp/datablk.bin", Use::create, 0, -1,
     [] { return in_session([] { return pta_invoke_blk_get(16, 0, 0, "device-certs"); }); }},
    {"/tmp/spdm_attestation_dump.bin", Use::create, 0, 0, att_dump},
    {"/tmp/attestation", Use::directory, 0, -1, att_dump},
    {"/tmp/ReeData.tgz", Use::read, 0, -1, att_dump},
    {"/usr/bin/reedata_tool.sh", Use::program, 0, -1, att_dump},
    {"/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains", Use::directory, 0, 0, att_dump},
    {"/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins/dev/m.bin", Use::read, 0, 0, att_dump},
    {"/etc/defaults/spdm_dalu_rootCA.der", Use::read, 0, 0, att_dump},
    {"/nv1/ra_data.tgz", Use::read, 0, -1, ra_refresh},
    {"/tmp/attestation", Use::directory, 0, -1, ra_refresh},
    {"/tmp/attestation/ra_data.bin", Use::create, 0, 0, ra_import},
    {"/nv1/ra_data.tgz", Use::create, 0, 0, ra_import},
    {"/tmp/attestation/ra_uid", Use::read, 0, 0, ra_replace},
    {"/tmp/inventory.txt", Use::read, 0, -1, inventory_get_without_session},
    {"/tmp/inventory.txt", Use::read, 0, 0, [] { return pta20_inventory_set("K", "v", 2); }},
    {"/tmp/fw_image", Use::create, 0, -1, dump_mmc},
    {"/dev/mmcblk0", Use::read, 0, -1, dump_mmc},
    {"/dev/mmcblk0p2", Use::read, 0, -1, [] { return pta20_img_auth(0x0103, 0, nullptr, 0); }},
    {"/nv1/bios_staging.bin", Use::read, 0, -1,
     [] { return pta20_img_auth(0x0101, 0, nullptr, 0); }},
    {"/nv1/bios_backup.bin", Use::create, 0, -1,
     [] { return pta20_img_dump(0x0102, 0, nullptr, 0); }},
    {"/tmp/fw-update-BIOS.out", Use::read, 40, -1, [] { return pta20_img_updmsg(0x0100, 0); }},
};

class HostileNeighbourTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        outside_ = path("-outside");
        make_dirs(outside_);
        write_file(outside_ + "/file", SECRET);
        ::chmod((outside_ + "/file").c_str(), 0600);
    }
    void TearDown() override {
        fs::remove_all(outside_);
        KarstTest::TearDown();
    }

    // Runs the call in a child process with standard output captured; a call that does not end
    // within a minute is ended and reported as hanging (status -1000).
    std::pair<int, std::string> run_limited(Call call) {
        const std::string captured = path("-captured");
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            const int rc = std::freopen(captured.c_str(), "w", stdout) ? call() : 99;
            std::fflush(nullptr);
            _exit(rc & 0xFF);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        const bool hung = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
        const int rc = WIFEXITED(status) ? static_cast<int8_t>(WEXITSTATUS(status)) : -999;
        return {hung ? -1000 : rc, read_file(captured)};
    }

    void plant(const std::string &at, Use use, Plant kind) {
        const bool dir = use == Use::directory;
        if (kind == Plant::link) {
            fs::create_symlink(dir ? outside_ : outside_ + "/file", at);
        } else if (kind == Plant::fifo) {
            ASSERT_EQ(mkfifo(at.c_str(), 0666), 0);
        } else if (dir == (kind == Plant::open_mode)) { // a directory where a file belongs, or
            fs::create_directory(at);                   // an open one where one belongs
        } else {
            write_file(at, dir ? "not a directory" : "#!/bin/sh\n");
        }
        if (kind == Plant::open_mode) {
            ::chmod(at.c_str(), 0777);
        }
    }

    // No file of the run root holds the secret, and the outside file is as it was, alone.
    void expect_nothing_leaked(const std::string &what) {
        struct stat st {};
        ASSERT_EQ(lstat((outside_ + "/file").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << what;
        EXPECT_EQ(read_file(outside_ + "/file"), SECRET) << what;
        EXPECT_EQ(std::distance(fs::directory_iterator(outside_), {}), 1)
            << what << ": a file appeared beside it";
        std::error_code ec;
        for (const auto &entry : fs::recursive_directory_iterator(root())) {
            const bool small_file = !entry.is_symlink(ec) && entry.is_regular_file(ec) &&
                                    entry.file_size(ec) <= (1u << 20);
            EXPECT_FALSE(small_file && read_file(entry.path()).find(SECRET) != std::string::npos)
                << what << ": the secret was copied into " << entry.path();
        }
    }

    std::string outside_;
};

TEST_F(HostileNeighbourTest, PlantsAtEveryFixedPathAreRefusedOrReplacedNeverFollowed) {
    for (const Row &row : ROWS) {
        for (Plant kind : {Plant::link, Plant::fifo, Plant::wrong_kind, Plant::open_mode}) {
            // A file's mode is not what makes it usable (its owner is); a directory is no FIFO.
            if ((kind == Plant::open_mode && (row.use == Use::read || row.use == Use::create)) ||
                (kind == Plant::fifo && row.use == Use::directory)) {
                continue;
            }
            const std::string what = row.path + std::string(" plant ") + std::to_string(int(kind));
            const std::string at = path(row.path), kept = at + ".kept";
            karst_emu_reset();
            prepare(root());
            if (fs::exists(fs::symlink_status(at))) {
                fs::rename(at, kept);
            }
            plant(at, row.use, kind);
            const auto [rc, out] = run_limited(row.call);
            ASSERT_NE(rc, -1000) << what << ": the call hung\n" << out;
            // A fresh file takes the place of a link or FIFO; anything else at a path is refused.
            const bool replaced = row.use == Use::create && kind != Plant::wrong_kind;
            const std::string refused = "Refused " + at + ": ";
            const size_t first = out.find(refused), refusals = first == std::string::npos    ? 0
                                                               : first == out.rfind(refused) ? 1
                                                                                             : 2;
            EXPECT_EQ(refusals, replaced ? 0u : 1u) << what << "\n" << out;
            EXPECT_EQ(rc, replaced ? row.ok : row.refused) << what << "\n" << out;
            expect_nothing_leaked(what);
            fs::remove_all(at);
            if (fs::exists(fs::symlink_status(kept))) {
                fs::rename(kept, at);
            }
            karst_emu_reset();
            prepare(root());
            int again = 0;
            capture_stdout([&] { again = row.call(); });
            EXPECT_EQ(again, row.ok) << what << ": the next normal call";
        }
    }
}

// Archives are checked member by member before tar runs as root: none of these is extracted,
// and nothing lands outside the directory or keeps a set-user-ID bit.
TEST_F(HostileNeighbourTest, ArchiveMembersThatCouldEscapeOrRaisePrivilegeAreRefused) {
    const std::string work = path("/work"), archive = path("/tmp/hostile.tgz");
    make_dirs(work + "/d");
    write_file(work + "/ra_data.bin", std::string(2048, 'r'));
    fs::create_symlink(outside_, work + "/link");
    fs::create_symlink(outside_ + "/file", work + "/ra_data.link");
    write_file(work + "/setuid", "#!/bin/sh\n");
    ::chmod((work + "/setuid").c_str(), 04755);
    const std::pair<std::string, std::string> archives[] = {
        {"ra_data.bin setuid", "set-user-ID, set-group-ID or sticky: setuid"},
        {"-P ra_data.bin /" + outside_.substr(1) + "/file", "a name outside the directory"},
        {"ra_data.bin --transform=s,^d,../escaped, d", "a name outside the directory"},
        {"ra_data.bin link", "a link, device or FIFO: link"},
        {"--transform=s,ra_data.link,ra_data.bin, ra_data.link", "a link, device or FIFO"},
    };
    const std::string tar = "tar -C " + work + " -czf " + archive + " ";
    const std::string refused = "Refused archive " + archive + ": ";
    for (const auto &[members, reason] : archives) {
        fs::remove(archive);
        ASSERT_EQ(sh(tar + members), 0) << members;
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = pta20_ra_refresh(archive.c_str(), 0); });
        EXPECT_EQ(rc, -1) << members;
        EXPECT_NE(out.find(refused + reason), std::string::npos) << members << "\n" << out;
        EXPECT_FALSE(exists(path("/tmp/attestation/setuid")) || exists(path("/tmp/escaped")))
            << members;
        expect_nothing_leaked(members);
    }
}

// Text answers of any size, terminated or not, come back as text inside the caller's buffer.
TEST_F(HostileNeighbourTest, UnterminatedTextAnswersStayInsideTheCallersBuffer) {
    const std::pair<uint32_t, int (*)(char *, uint32_t)> calls[] = {
        {PTA_DALU_CMD_UBOOTENV_GET,
         [](char *b, uint32_t n) { return pta20_ubootenv_get("v", b, n); }},
        {PTA_DALU_CMD_INVENTORY_GET,
         [](char *b, uint32_t n) { return pta20_inventory_get("v", b, n); }},
        {PTA_DALU_CMD_BOARD_SN_GET,
         [](char *b, uint32_t n) {
             uint32_t word = 0;
             return pta20_otp_board_sn_get(&word, b, n);
         }},
    };
    for (const auto &[command, read_text] : calls) {
        for (const size_t answer : {5u, 16u}) {
            const auto call = read_text;
            karst_emu_reset();
            const std::string text(answer, 'x'); // no terminating zero
            karst_emu_answer(command, 1, text.data(), text.size());
            std::string buffer(17, '#'); // 16 bytes for the call, one guard byte
            int rc = 0;
            capture_stdout([&] { rc = call(buffer.data(), 16); });
            EXPECT_EQ(buffer[16], '#') << "written past the buffer";
            EXPECT_EQ(rc, answer < 16 ? 0 : -1) << command << " " << answer;
            EXPECT_EQ(buffer.substr(0, buffer.find('\0')),
                      text.substr(0, std::min<size_t>(answer, 15)))
                << command << " " << answer;
        }
    }
}

// The checks themselves, for the owners that a test running as one user cannot produce: a
// directory's mode and owner (whole: used whole, not shared), a file's kind and owner (whole: a
// device may be used too).
TEST(BoardFileChecks, OwnerAndModeRules) {
    const uid_t me = 1000, other = 1001;
    const struct {
        mode_t mode;
        uid_t owner;
        bool whole, ok;
    } cases[] = {
        {S_IFDIR | 0755, 0, true, true},        {S_IFDIR | 0755, me, true, true},
        {S_IFDIR | 0755, other, true, false},   {S_IFDIR | 0775, me, false, false},
        {S_IFDIR | 01777, 0, false, true},      {S_IFDIR | 01777, 0, true, false},
        {S_IFDIR | 01777, other, false, false}, {S_IFREG | 0644, 0, false, true},
        {S_IFREG | 0600, me, false, true},      {S_IFREG | 0644, other, false, false},
        {S_IFIFO | 0644, me, false, false},     {S_IFBLK | 0600, 0, true, true},
        {S_IFBLK | 0600, 0, false, false},
    };
    for (const auto &c : cases) {
        struct stat st {};
        st.st_mode = c.mode;
        st.st_uid = c.owner;
        const auto kind =
            c.whole ? karst::board::Kind::regular_or_device : karst::board::Kind::regular;
        EXPECT_EQ(karst::board::directory_problem(st, me, c.whole) == nullptr,
                  S_ISDIR(c.mode) && c.ok)
            << std::oct << c.mode;
        EXPECT_EQ(karst::board::file_problem(st, me, kind) == nullptr, !S_ISDIR(c.mode) && c.ok)
            << std::oct << c.mode;
    }
}

} // namespace
