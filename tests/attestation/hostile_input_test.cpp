// Caller input never runs a shell command. A nonce is 1 to 64 letters, digits, '-' or '_' and
// anything else is refused before any command runs or any file is touched; an RA archive path
// reaches tar as one literal word, whatever it holds. Each case proves that nothing but the
// intended command ran (its effect is there, and no "canary" appeared anywhere) and that nothing
// outside the intended files changed.
#include "attestation/att_support.hpp"

#include <filesystem>
#include <unistd.h>

using namespace karst::test;

namespace {

constexpr size_t RA_SIZE = 66560;

class HostileInputTest : public KarstTest {
  protected:
    // No file or folder named exactly "canary" anywhere under the run root or the working
    // directory.
    void expect_no_canary(const std::string &what) {
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        for (const std::string &dir : {root(), std::string(cwd)}) {
            for (const std::string &found : find_named(dir, "canary")) {
                EXPECT_NE(std::filesystem::path(found).filename(), "canary")
                    << "a command ran for: " << what;
            }
        }
    }
};

const std::vector<std::string> &hostile_nonces() {
    static const std::vector<std::string> nonces = {
        ";",
        "a;touch canary",
        "$(touch canary)",
        "`touch canary`",
        "a'b",
        "a\"b",
        "a b",
        "a\nb",
        "a\tb",
        "../../canary",
        "..",
        "a/b",
        "*",
        "a|touch canary",
        "a&&touch canary",
        "a>canary",
        "",
        std::string(65, 'a'),
        "caf\xc3\xa9",
    };
    return nonces;
}

TEST_F(HostileInputTest, NoncesBeyondTheirAlphabetAreRefusedBeforeAnythingRunsOrChanges) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "");
    const auto before = snapshot(root());
    const std::string refusal =
        R"(\] Invalid nonce: 1 to 64 letters, digits, '-' or '_' expected\n)";

    for (const std::string &nonce : hostile_nonces()) {
        char where[300] = "untouched";
        std::string out = capture_stdout(
            [&] { EXPECT_EQ(pta20_att_dump(nonce.c_str(), where, sizeof where), -1) << nonce; });
        EXPECT_TRUE(matches(out, R"(\[E:pta20_att_dump:\d+)" + refusal)) << nonce;
        EXPECT_STREQ(where, "untouched");
        EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a refused nonce";

        // The routines below the exported call refuse it the same way.
        ASSERT_EQ(pta_open_session(), 0u);
        out = capture_stdout([&] {
            EXPECT_EQ(pta_invoke_att_dump(12, nonce.c_str(), where, sizeof where), -1);
            EXPECT_EQ(_pta_invoke_att_dump(12, nonce.c_str(), nullptr, 0, where, sizeof where), -1);
            uintptr_t block[PTA20_ARGS_WORDS];
            pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(nonce.c_str()), sizeof where,
                       reinterpret_cast<uintptr_t>(where));
            EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_ATT_DUMP, block), -1);
        });
        pta_close_session();
        EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_att_dump:\d+)" + refusal +
                                     R"(\[E:_pta_invoke_att_dump:\d+)" + refusal +
                                     R"(\[E:pta_invoke_att_dump:\d+)" + refusal))
            << nonce;
        EXPECT_EQ(karst_emu_journal_count(), 0u) << nonce;
        EXPECT_FALSE(exists(log)) << "the REE data tool ran for: " << nonce;
        expect_no_canary(nonce);
        karst_emu_reset();
    }
    // The session lock is the only trace of the sessions opened above.
    auto after = snapshot(root());
    after.erase("var/lib/karst-emulator/session.lock");
    EXPECT_EQ(after, before);
}

TEST_F(HostileInputTest, EveryNonceOfTheAlphabetReachesTheToolAsOneWord) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "");
    const std::string longest = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    ASSERT_EQ(longest.size(), 64u);
    for (const std::string &nonce : {longest, std::string("-"), std::string("_x")}) {
        capture_stdout([&] { EXPECT_EQ(pta20_att_dump(nonce.c_str(), nullptr, 0), 0) << nonce; });
        EXPECT_EQ(find_named(path("/tmp/attestation"), "_" + nonce + ".bin").size(), 1u);
    }
    EXPECT_EQ(read_file(log), "2|1|" + longest + "\n1|2|\n2|1|-\n1|2|\n2|1|_x\n1|2|\n");
}

// Archive paths with every kind of shell syntax in them: the extraction unpacks exactly the
// archive named, the secure world accepts its RA data, and no other command runs.
TEST_F(HostileInputTest, ArchivePathsReachTarAsOneLiteralWord) {
    Bytes ra(RA_SIZE);
    const Bytes cert = to_bytes("certificate");
    ASSERT_EQ(karst_emu_ra_issue(cert.data(), cert.size(), ra.data(), ra.size()), RA_SIZE);
    const std::string in = path("/in");
    make_dirs(in + "/sub");
    const std::vector<std::string> names = {
        "ra;touch canary;.tgz",       "$(touch canary).tgz",
        "`touch canary`.tgz",         "it's \"quoted\".tgz",
        "new\nline;touch canary.tgz", "sp ace & canary.tgz",
        "x|touch canary.tgz",         "*.tgz",
    };
    for (const std::string &name : names) {
        make_tgz(in + "/" + name, {{"ra_data.bin", ra}});
    }
    make_tgz(in + "/ra.tgz", {{"ra_data.bin", ra}});

    std::vector<std::string> paths;
    for (const std::string &name : names) {
        paths.push_back(in + "/" + name);
    }
    paths.push_back(in + "/sub/../ra.tgz");
    const auto before = snapshot(root(), {"tmp/attestation", "var/lib/karst-emulator"});
    for (const std::string &archive : paths) {
        std::filesystem::remove_all(path("/tmp/attestation"));
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = pta20_ra_refresh(archive.c_str(), 0); });
        EXPECT_EQ(rc, 0) << archive << "\n" << out;
        EXPECT_EQ(read_bytes(path("/tmp/attestation/ra_data.bin")), ra) << archive;
        expect_no_canary(archive);
    }
    EXPECT_EQ(snapshot(root(), {"tmp/attestation", "var/lib/karst-emulator"}), before);
}

// A relative archive path is taken from the caller's working directory, even one that begins
// with '-' (never read by tar as an option) or climbs with "../".
TEST_F(HostileInputTest, RelativeArchivePathsAreTheCallersFiles) {
    Bytes ra(RA_SIZE);
    ASSERT_EQ(karst_emu_ra_issue(nullptr, 0, ra.data(), ra.size()), RA_SIZE);
    make_dirs(path("/in/work"));
    const std::string option_like = "--to-command=touch canary";
    make_tgz(path("/in/work/") + option_like, {{"ra_data.bin", ra}});
    make_tgz(path("/in/up.tgz"), {{"ra_data.bin", ra}});
    const std::string work = path("/in/work");
    for (const std::string &relative : {option_like, std::string("../up.tgz")}) {
        const int status = in_child([&] {
            if (chdir(work.c_str()) != 0) {
                return 3;
            }
            return pta20_ra_refresh(relative.c_str(), 0) == 0 ? 0 : 1;
        });
        EXPECT_EQ(status, 0) << relative;
        EXPECT_EQ(read_bytes(path("/tmp/attestation/ra_data.bin")), ra) << relative;
        expect_no_canary(relative);
        std::filesystem::remove(path("/tmp/attestation/ra_data.bin"));
    }
}

} // namespace
