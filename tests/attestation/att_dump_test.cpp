// The attestation dump from end to end: the data block as the secure world receives it, key by
// key, with the SPDM evidence files taken by their name rules; the result file named by digest
// info and nonce; the path handed back; the REE data tool's two runs; the dump without an archive
// or evidence, with an archive too large and with a failing command; the guards on nonce and
// digest info, which keep caller input out of the shell and the secure world's answer inside the
// result directory. Then the evidence helpers: where a KLV record may go, evidence that cannot be
// used, and the ten-record limits.
#include "attestation/att_support.hpp"
#include "attestation/spdm_evidence.hpp"

using namespace karst::test;

namespace {

constexpr size_t BLOCK_SIZE = 65536;
const std::string CHAINS = "/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains/";
const std::string MEASUREMENTS = "/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins/";
const std::string DALU_CA = "/etc/defaults/spdm_dalu_rootCA.der";
const std::string NV_CA = "/etc/defaults/spdm_nv_rootCA.der";
const std::string CA_KEY = "Managers/1/SecurityPolicy/SPDM/TrustedCertificates/";
const std::string DUMP_FAILED = R"((.*\n)*\[E:_pta_invoke_att_dump:\d+\] )";

class AttDumpTest : public KarstTest {
  protected:
    // A file of the run root (made with its folders).
    void put(const std::string &inside, const Bytes &content) const {
        make_dirs(std::filesystem::path(path(inside)).parent_path());
        write_bytes(path(inside), content);
    }
    std::string result_path(const std::string &digest, const std::string &nonce) const {
        return path("/tmp/attestation/attd_" + digest + "_" + nonce + ".bin");
    }
    // The recording REE data tool, running body after its record; its log.
    std::string record_tool(const std::string &body = "") const {
        install_recording_tool(root(), path("/tmp/tool.log"), body);
        return path("/tmp/tool.log");
    }
    // pta20_att_dump, expected to return rc; what it printed.
    static std::string dump(const char *nonce, int rc, char *where = nullptr, uint32_t size = 0) {
        return printed(rc, [&] { return pta20_att_dump(nonce, where, size); });
    }
    // The pairs of the last command's data block (after its 16-byte header).
    static Pairs block_pairs() {
        const karst_emu_param &p = journal().back().params[3];
        return p.input_kept > 16 ? klv_pairs(p.input + 16, p.input_kept - 16) : Pairs{};
    }
};

TEST_F(AttDumpTest, BlockCarriesTheEvidenceAndTheResultIsNamedByDigestInfoAndNonce) {
    // Only visible "<key>.der" chains and "<key>.bin" measurements in a subdirectory are taken,
    // the key cut at the last dot.
    for (const std::string &skipped :
         {CHAINS + "c.DER", CHAINS + "c", CHAINS + ".c.der", CHAINS + "c.der.bak",
          MEASUREMENTS + "gpu1/m.BIN", MEASUREMENTS + ".hidden/h.bin", MEASUREMENTS + "top.bin"}) {
        put(skipped, pattern(10));
    }
    put(CHAINS + "dev.0.der", pattern(1200, 1));
    put(MEASUREMENTS + "gpu0/m.bin", pattern(300, 2));
    put(DALU_CA, pattern(500, 3));
    put(NV_CA, pattern(600, 4));
    char where[512];
    EXPECT_EQ(dump("abc123", 0, where, sizeof where), "") << "a complete dump prints nothing";
    EXPECT_EQ(shape(), "12 cccc 66560o 128o 6i 65536i");
    EXPECT_EQ(sent(2), "abc123") << "the nonce without its terminator";
    const Bytes block = to_bytes(sent(3));
    ASSERT_EQ(block.size(), BLOCK_SIZE);
    EXPECT_EQ(le32(block.data() + 4), DATABLK_MAGIC_ATT);
    EXPECT_EQ(le32(block.data()), crc32i(0xFFFFFFFF, block.data() + 4, BLOCK_SIZE - 4));
    // Key by key, in order: the REE data archive, the evidence records, the root CAs.
    Pairs pairs = block_pairs();
    ASSERT_EQ(pairs.size(), 4u);
    EXPECT_EQ(pairs[0].first, "ReeData_v1_tgz");
    pairs.erase(pairs.begin());
    const Pairs evidence = {
        {"SPDMDevInvt_v1_klvs", join({{0x16, 5, 'd', 'e', 'v', '.', '0', 0x02, 0x02, 0x04, 0xb0},
                                      pattern(1200, 1),
                                      {0x16, 1, 'm', 0x02, 0x02, 0x01, 0x2c},
                                      pattern(300, 2)})},
        {CA_KEY + "1", pattern(500, 3)},
        {CA_KEY + "2", pattern(600, 4)}};
    EXPECT_TRUE(pairs == evidence);
    EXPECT_TRUE(read_bytes(path("/tmp/spdm_attestation_dump.bin")) == block) << "the copy as sent";
    EXPECT_FALSE(exists(path("/tmp/ReeData.tgz"))) << "the tool's clean-up";
    // The whole result, named by the digest info answered (here the digest's first 16 digits).
    const Bytes result = read_bytes(where);
    ASSERT_EQ(result.size(), 66560u);
    EXPECT_TRUE(std::equal(block.begin(), block.end(), result.begin()));
    const std::string statement = to_text(result.data() + BLOCK_SIZE, 256);
    EXPECT_EQ(statement.rfind("KARST-ATT v1\nnonce=abc123\nblock-size=65536\nsha256=", 0), 0u);
    EXPECT_EQ(where, result_path(statement.substr(statement.find("sha256=") + 7, 16), "abc123"));
}

TEST_F(AttDumpTest, PathIsHandedBackOnlyWhenItFitsWithItsTerminator) {
    record_tool();
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "3f2a", 5);
    const std::string file = result_path("3f2a", "abc123");
    std::string where(file.size() + 4, '#');
    dump("abc123", 0, where.data(), static_cast<uint32_t>(file.size()));
    EXPECT_EQ(where, std::string(file.size() + 4, '#'));
    // The answer filled nothing of the result buffer: the file is its 66,560 bytes anyway.
    EXPECT_TRUE(read_bytes(file) == Bytes(66560, 0));
    dump("abc123", 0, where.data(), static_cast<uint32_t>(file.size() + 1));
    EXPECT_EQ(where, file + std::string(1, '\0') + "###");
    dump("abc123", 0, nullptr, 1000);
}

// Without an archive there is no block: each store into it is refused (an empty root CA file
// before), the command goes without its fourth parameter, and the dump succeeds. An archive too
// large for the block stops the dump before the command and the tool's second run.
TEST_F(AttDumpTest, WithoutAnArchiveThereIsNoBlockAndWithOneTooLargeNoCommand) {
    const std::string log = record_tool();
    put(DALU_CA, pattern(500, 3));
    put(NV_CA, {});
    char where[512] = {};
    EXPECT_TRUE(matches(
        dump("n-1_X", 0, where, sizeof where),
        R"((\[I:.*\n){2}Invalid arguments: name = SPDMDevInvt_v1_klvs\n)"
        "Invalid arguments: name = " +
            CA_KEY + "1\n" + R"(\[E:spdm_add_root_cas:\d+\] Failed to set Root CA KLV key \[)" +
            CA_KEY + R"(1\] \(rc: -1\)\n\[E:spdm_add_root_cas:\d+\] Invalid Root CA file size: )" +
            path(NV_CA) + "\n"));
    EXPECT_EQ(shape(), "12 0ccc 66560o 128o 5i -");
    EXPECT_FALSE(exists(path("/tmp/spdm_attestation_dump.bin")));
    EXPECT_EQ(std::string(where).rfind(path("/tmp/attestation/attd_"), 0), 0u);
    record_tool("head -c 70000 /dev/zero > " + path("/tmp/ReeData.tgz"));
    karst_emu_journal_clear();
    EXPECT_TRUE(matches(dump("abc123", -1),
                        R"(\[E:pta_invoke_att_dump:\d+\] Failed to set key\[ReeData_v1_tgz\]\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_EQ(read_file(log), "2|1|n-1_X\n1|2|\n2|1|abc123\n");
}

// Without evidence the block holds only the archive (the empty evidence buffer is refused by the
// block; each missing root CA is reported). Each successful dump empties the result directory, a
// failed one leaves it, and the tool's second run comes whatever the result.
TEST_F(AttDumpTest, EachSuccessfulDumpEmptiesTheResultDirectoryAndAFailedOneLeavesIt) {
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "d", 2);
    EXPECT_TRUE(matches(
        dump("first", 0),
        R"((.*\n){2}\[E:blk_set:\d+\] Incorrect datablk length 0\n)"
        R"((\[I:spdm_add_root_cas:\d+\] SPDM Root CA file not found: .*rootCA\.der\n){2})"));
    EXPECT_EQ(block_pairs().size(), 1u);
    write_file(path("/tmp/attestation/ra_data.bin"), "kept by a replacement");
    dump("second", 0);
    EXPECT_EQ(snapshot(path("/tmp/attestation")).size(), 1u) << "only the new result is left";
    const std::string log = record_tool();
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_SECURITY);
    EXPECT_TRUE(
        matches(dump("third", -1),
                DUMP_FAILED + "TEEC_InvokeCommand failed with code 0xffff000f origin 0x4\n"));
    EXPECT_TRUE(exists(result_path("d", "second")));
    EXPECT_EQ(read_file(log), "2|1|third\n1|2|\n");
}

// What the secure world answers as digest info becomes part of a file name: anything that is not
// a terminated text of file name characters is refused before the directory is touched.
TEST_F(AttDumpTest, DigestInfoThatCouldLeaveTheResultDirectoryIsRefused) {
    dump("keep", 0);
    const std::vector<std::string> skip = {"var/lib/karst-emulator",
                                           "tmp/spdm_attestation_dump.bin"};
    const Tree before = snapshot(root(), skip);
    for (const std::string digest : {"../../../evil", "a/b", "..", "x..y", "sp ace", "nl\nx",
                                     "semi;colon", "q'uote", "back\\slash", ""}) {
        // The empty row stands for 128 bytes without a terminator.
        const std::string answer = digest.empty() ? std::string(128, 'a') : digest + '\0';
        karst_emu_answer(12, 1, answer.data(), answer.size());
        EXPECT_TRUE(
            matches(dump("abc", -1), DUMP_FAILED + "Invalid digest info from the secure world\n"))
            << digest;
    }
    EXPECT_EQ(changes(before, snapshot(root(), skip)), "");
    karst_emu_answer(12, 1, "sha256:3f-2a_X.+=,@", 20);
    dump("abc", 0);
    EXPECT_TRUE(exists(result_path("sha256:3f-2a_X.+=,@", "abc")));
}

// A nonce is 1 to 64 letters, digits, '-' or '_'; anything else is refused at every layer before
// any command runs or any file is touched. Each nonce of the alphabet reaches the tool as one
// word.
TEST_F(AttDumpTest, NoncesBeyondTheirAlphabetAreRefusedBeforeAnythingRunsOrChanges) {
    const std::string log = record_tool();
    const Tree before = snapshot(root(), {"var/lib/karst-emulator/session.lock"});
    const std::string longest = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    const std::string refused = R"(:\d+\] Invalid nonce: 1 to 64 letters, digits, '-' or '_' )"
                                R"(expected\n)";
    for (const std::string &nonce : std::initializer_list<std::string>{
             ";", "a;touch canary", "$(touch canary)", "`touch canary`", "a'b", "a\"b", "a b",
             "a\nb", "a\tb", "../../canary", "..", "a/b", "*", "a|touch canary", "a&&touch canary",
             "", "a>canary", "caf\xc3\xa9", longest + "a"}) {
        char where[300] = "untouched";
        EXPECT_TRUE(matches(dump(nonce.c_str(), -1, where, sizeof where),
                            R"(\[E:pta20_att_dump)" + refused));
        EXPECT_STREQ(where, "untouched");
    }
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a refused nonce";
    EXPECT_TRUE(
        matches(printed(-2,
                        [] {
                            return in_session([] {
                                return pta_invoke_att_dump(12, "a b", nullptr, 0) +
                                       _pta_invoke_att_dump(12, "a;b", 0, 0, nullptr, 0);
                            });
                        }),
                R"(\[E:pta_invoke_att_dump)" + refused + R"(\[E:_pta_invoke_att_dump)" + refused));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_FALSE(exists(log)) << "the REE data tool ran";
    EXPECT_EQ(changes(before, snapshot(root(), {"var/lib/karst-emulator/session.lock"})), "");
    for (const std::string &nonce : {longest, std::string("-"), std::string("_x")}) {
        karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "d", 2);
        dump(nonce.c_str(), 0);
        EXPECT_TRUE(exists(result_path("d", nonce)));
    }
    EXPECT_EQ(read_file(log), "2|1|" + longest + "\n1|2|\n2|1|-\n1|2|\n2|1|_x\n1|2|\n");
    // A missing nonce, at each layer; a block larger than the result; a block pointer with
    // length 0 is no block, and the command ID is always 12.
    EXPECT_EQ(dump(nullptr, -1), "");
    Bytes big(66561, 0);
    EXPECT_TRUE(matches(
        printed(-3,
                [&] {
                    return in_session([&] {
                        return _pta_invoke_att_dump(12, nullptr, nullptr, 0, nullptr, 0) +
                               pta_invoke_att_dump(12, nullptr, nullptr, 0) +
                               _pta_invoke_att_dump(12, "abc", big.data(), 66561, nullptr, 0);
                    });
                }),
        R"(\[E:_pta_invoke_att_dump:\d+\] Miss nonce\n\[E:pta_invoke_att_dump:\d+\] Nonce is )"
        R"(NULL\n\[E:_pta_invoke_att_dump:\d+\] Incorrect datablk size 10401\n)"));
    printed(0, [&] {
        return in_session(
            [&] { return _pta_invoke_att_dump(99, "abc", big.data(), 0, nullptr, 0); });
    });
    EXPECT_EQ(shape(), "12 0ccc 66560o 128o 3i -");
}

// Evidence that cannot be used is reported and left out, and the scan goes on: an empty file, a
// link, a record one byte too large for the buffer (one byte less fills it); ten records of each
// kind at most, chains first.
TEST_F(AttDumpTest, EvidenceThatCannotBeUsedIsLeftOutAndTenOfEachKindAreTakenAtMost) {
    const auto collect = [] {
        Bytes buffer(65536, 0);
        uint32_t used = 0;
        const std::string out = capture_stdout([&] {
            karst::att::spdm_collect_cert_chains(buffer.data(), 65536, &used);
            karst::att::spdm_collect_measurements(buffer.data(), 65536, &used);
        });
        return std::pair{klv_pairs(buffer.data(), buffer.size()), out};
    };
    put(CHAINS + "x.der", {});
    put(CHAINS + "fit.der", pattern(65536 - 9 + 1)); // a record of 9 bytes and its value
    put(CHAINS + "c.der", pattern(100));
    std::filesystem::create_symlink(path("/nowhere"), path(CHAINS + "broken.der"));
    auto [pairs, out] = collect();
    EXPECT_TRUE(pairs == (Pairs{{"c", pattern(100)}}));
    EXPECT_TRUE(matches(
        out,
        R"((\[E:spdm_collect_cert_chains:\d+\] (Invalid certificate file size: .*/x\.der|Refused )"
        R"(.*/broken\.der: a symbolic link|Failed to append certificate KLV: fit)\n){3})"
        R"(\[I:spdm_collect_measurements:\d+\] SPDM measurements directory not found: )" +
            path(MEASUREMENTS.substr(0, MEASUREMENTS.size() - 1)) + "\n"));
    std::filesystem::remove(path(CHAINS + "c.der"));
    put(CHAINS + "fit.der", pattern(65536 - 9));
    std::tie(pairs, out) = collect();
    EXPECT_TRUE(pairs == (Pairs{{"fit", pattern(65536 - 9)}}));
    std::filesystem::remove(path(CHAINS + "fit.der"));
    for (int i = 0; i < 15; ++i) {
        put(CHAINS + "c" + std::to_string(i) + ".der", pattern(100, i));
        put(MEASUREMENTS + "gpu" + std::to_string(i % 3) + "/m" + std::to_string(i) + ".bin",
            pattern(50, i));
    }
    std::tie(pairs, out) = collect();
    ASSERT_EQ(pairs.size(), 20u);
    for (size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(pairs[i].first[0], i < 10 ? 'c' : 'm') << i;
    }
}

} // namespace
