// SPDX-License-Identifier: Apache-2.0
// The attestation dump from end to end: the data block as the secure world receives it, key by
// key, with the SPDM evidence files taken by their name rules; the result file named by digest
// info and nonce; the path handed back; the REE data tool's two runs; the dump without an archive
// or evidence, with an archive too large and with a failing command; the guards on nonce and
// digest info, which keep caller input out of the shell and the secure world's answer inside the
// result directory. Then the evidence collectors: evidence that cannot be used, a record that
// fills the buffer, and the ten-record limits.
#include "attestation/att_support.hpp"
#include "attestation/spdm_evidence.hpp"

using namespace karst::test;

namespace {

const std::string CHAINS = "/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains/";
const std::string MEASUREMENTS = "/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins/";
const std::string CA = "/etc/defaults/spdm_"; // + "dalu_rootCA.der", "nv_rootCA.der"
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
    // The value of key in the last command's data block, or "<-1>".
    static Bytes value(const std::string &key) {
        Bytes block = to_bytes(sent(3));
        Bytes out(65536);
        uint32_t len = 65536;
        const bool got = !block.empty() && pta20_datablk_get(DATABLK_MAGIC_ATT, key.c_str(),
                                                             out.data(), &len, block.data()) == 0;
        return got ? Bytes(out.begin(), out.begin() + len) : to_bytes("<-1>");
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
    put(CA + "dalu_rootCA.der", pattern(500, 3));
    put(CA + "nv_rootCA.der", pattern(600, 4));
    char where[512];
    EXPECT_EQ(dump("abc123", 0, where, sizeof where), "") << "a complete dump prints nothing";
    EXPECT_EQ(shape(), "12 cccc 66560o 128o 6i 65536i");
    const Bytes block = to_bytes(sent(3));
    ASSERT_EQ(pta20_datablk_check(block.data(), 65536), 0);
    // Key by key: the REE data archive, the evidence records, the root CAs.
    EXPECT_EQ(hex(value("ReeData_v1_tgz").data(), 2), "1f 8b") << "a gzip archive";
    EXPECT_TRUE(value("SPDMDevInvt_v1_klvs") ==
                join({{0x16, 5, 'd', 'e', 'v', '.', '0', 0x02, 0x02, 0x04, 0xb0},
                      pattern(1200, 1),
                      {0x16, 1, 'm', 0x02, 0x02, 0x01, 0x2c},
                      pattern(300, 2)}));
    EXPECT_TRUE(join({value(CA_KEY + "1"), value(CA_KEY + "2")}) ==
                join({pattern(500, 3), pattern(600, 4)}));
    EXPECT_TRUE(to_bytes(read_file(path("/tmp/spdm_attestation_dump.bin"))) == block)
        << "the copy as sent";
    EXPECT_FALSE(exists(path("/tmp/ReeData.tgz"))) << "the tool's clean-up";
    // The result, named by the digest info answered (here 16 digits of the digest) and the nonce.
    EXPECT_TRUE(matches(where, path("/tmp/attestation/attd_") + "[0-9a-f]{16}_abc123\\.bin"));
}

// The path comes back only with room for its terminator. The answer filled nothing of the result
// buffer: the file is its 66,560 bytes anyway.
TEST_F(AttDumpTest, PathIsHandedBackOnlyWhenItFitsWithItsTerminator) {
    record_tool();
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "3f2a", 5);
    const std::string file = result_path("3f2a", "abc123");
    std::string where(file.size() + 4, '#');
    dump("abc123", 0, where.data(), static_cast<uint32_t>(file.size()));
    EXPECT_EQ(where, std::string(file.size() + 4, '#'));
    EXPECT_TRUE(read_file(file) == std::string(66560, '\0'));
    dump("abc123", 0, where.data(), static_cast<uint32_t>(file.size() + 1));
    EXPECT_EQ(where, file + std::string(1, '\0') + "###");
    dump("abc123", 0, nullptr, 1000);
}

// Without evidence the block holds only the archive (the empty evidence buffer is refused by the
// block; each missing root CA is reported). Without an archive there is no block: each store into
// it is refused (an empty root CA file before), the command goes without its fourth parameter,
// and the dump succeeds. An archive too large for the block stops the dump before the command and
// the tool's second run; a failing command does not stop the second run. Each successful dump
// empties the result directory; a failed one leaves it.
TEST_F(AttDumpTest, WithoutEvidenceOrArchiveTheDumpGoesOnAndFailuresLeaveTheResults) {
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "d", 2);
    EXPECT_TRUE(matches(
        dump("first", 0),
        R"((.*\n){2}\[E:blk_set:\d+\] Incorrect datablk length 0\n)"
        R"((\[I:spdm_add_root_cas:\d+\] SPDM Root CA file not found: .*rootCA\.der\n){2})"));
    write_file(path("/tmp/attestation/ra_data.bin"), "kept by a replacement");
    std::filesystem::remove(path("/tmp/spdm_attestation_dump.bin"));
    const std::string log = record_tool();
    put(CA + "dalu_rootCA.der", pattern(500, 3));
    put(CA + "nv_rootCA.der", {});
    EXPECT_TRUE(
        matches(dump("n-1_X", 0),
                R"((\[I:.*\n){2}Invalid arguments: name = SPDMDevInvt_v1_klvs\n)"
                "Invalid arguments: name = " +
                    CA_KEY + R"(1\n\[E:spdm_add_root_cas:\d+\] Failed to set Root CA KLV key \[)" +
                    CA_KEY + R"(1\] \(rc: -1\)\n\[E:spdm_add_root_cas:\d+\] Invalid Root CA )" +
                    "file size: " + path(CA) + "nv_rootCA.der\n"));
    EXPECT_EQ(shape(), "12 0ccc 66560o 128o 5i -");
    EXPECT_FALSE(exists(path("/tmp/spdm_attestation_dump.bin")));
    EXPECT_EQ(snapshot(path("/tmp/attestation")).size(), 1u) << "only the new result is left";
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_SECURITY);
    EXPECT_TRUE(
        matches(dump("third", -1),
                DUMP_FAILED + "TEEC_InvokeCommand failed with code 0xffff000f origin 0x4\n"));
    EXPECT_TRUE(exists(result_path("d", "n-1_X")));
    record_tool("head -c 70000 /dev/zero > " + path("/tmp/ReeData.tgz"));
    karst_emu_journal_clear();
    EXPECT_TRUE(matches(dump("big", -1),
                        R"(\[E:pta_invoke_att_dump:\d+\] Failed to set key\[ReeData_v1_tgz\]\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_EQ(read_file(log), "2|1|n-1_X\n1|2|\n2|1|third\n1|2|\n2|1|big\n");
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
}

// A nonce is 1 to 64 letters, digits, '-' or '_'; anything else is refused at every layer before
// any session, command, tool run or file change. A nonce of the alphabet reaches the tool as one
// word.
TEST_F(AttDumpTest, NoncesBeyondTheirAlphabetAreRefusedBeforeAnythingRunsOrChanges) {
    const std::string log = record_tool();
    const std::vector<std::string> skip = {"var/lib/karst-emulator/session.lock"};
    const Tree before = snapshot(root(), skip);
    const std::string longest = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    const std::string refused = R"(:\d+\] Invalid nonce: 1 to 64 letters, digits, '-' or '_' )"
                                R"(expected\n)";
    for (const std::string &nonce : std::initializer_list<std::string>{
             ";", "a;touch canary", "$(touch canary)", "`touch canary`", "a'b", "a\"b", "a b",
             "a\nb", "a\tb", "../../canary", "..", "a/b", "*", "a|touch canary", "a&&touch canary",
             "", "a>canary", "caf\xc3\xa9", longest + "a"}) {
        EXPECT_TRUE(matches(dump(nonce.c_str(), -1), R"(\[E:pta20_att_dump)" + refused)) << nonce;
    }
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a refused nonce";
    // The layers below refuse the same, and a block larger than the result; a block pointer with
    // length 0 is no block, and the command is always 12.
    Bytes big(66561, 0);
    expect_calls({{[] { return pta_invoke_att_dump(12, "a b", nullptr, 0); }, -1,
                   R"(\[E:pta_invoke_att_dump)" + refused},
                  {[] { return _pta_invoke_att_dump(12, "a;b", 0, 0, 0, 0); }, -1,
                   R"(\[E:_pta_invoke_att_dump)" + refused},
                  {[&] { return _pta_invoke_att_dump(12, "abc", big.data(), 66561, 0, 0); }, -1,
                   R"(\[E:_pta_invoke_att_dump:\d+\] Incorrect datablk size 10401\n)"}},
                 true);
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_FALSE(exists(log)) << "the REE data tool ran";
    EXPECT_EQ(changes(before, snapshot(root(), skip)), "");
    printed(
        0, [&] { return _pta_invoke_att_dump(99, "abc", big.data(), 0, 0, 0); }, true);
    EXPECT_EQ(shape(), "12 0ccc 66560o 128o 3i -");
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "d", 2);
    dump(longest.c_str(), 0);
    EXPECT_EQ(read_file(log), "2|1|" + longest + "\n1|2|\n");
}

// Evidence that cannot be used is reported and left out, and the scan goes on: an empty file, a
// link, a record one byte too large for the buffer (one byte less fills it). Ten records of each
// kind at most, chains first (fifteen of each, records of 107 and 57 bytes).
TEST_F(AttDumpTest, EvidenceThatCannotBeUsedIsLeftOutAndTenOfEachKindAreTakenAtMost) {
    Bytes buffer;
    uint32_t used = 0;
    const auto collect = [&] {
        buffer.assign(65536, 0);
        used = 0;
        return capture_stdout([&] {
            karst::att::spdm_collect_cert_chains(buffer.data(), 65536, &used);
            karst::att::spdm_collect_measurements(buffer.data(), 65536, &used);
        });
    };
    put(CHAINS + "x.der", {});
    put(CHAINS + "fit.der", pattern(65536 - 9 + 1)); // a record of 9 bytes and its value
    put(CHAINS + "c.der", pattern(100));
    std::filesystem::create_symlink(path("/nowhere"), path(CHAINS + "broken.der"));
    EXPECT_TRUE(matches(
        collect(),
        R"((\[E:spdm_collect_cert_chains:\d+\] (Invalid certificate file size: .*/x\.der|Refused )"
        R"(.*/broken\.der: a symbolic link|Failed to append certificate KLV: fit)\n){3})"
        R"(\[I:spdm_collect_measurements:\d+\] SPDM measurements directory not found: .*\n)"));
    EXPECT_TRUE(buffer == join({{0x16, 1, 'c', 0x02, 0x01, 100}, pattern(100), Bytes(65430)}));
    std::filesystem::remove(path(CHAINS + "c.der"));
    put(CHAINS + "fit.der", pattern(65536 - 9));
    collect();
    EXPECT_EQ(hex(buffer.data(), 9) + " " + std::to_string(used),
              "16 03 66 69 74 02 02 ff f7 65536");
    std::filesystem::remove(path(CHAINS + "fit.der"));
    for (char i = 'a'; i < 'p'; ++i) {
        put(CHAINS + "c" + i + ".der", pattern(100, i));
        put(MEASUREMENTS + "gpu" + char('0' + i % 3) + "/m" + i + ".bin", pattern(50, i));
    }
    collect();
    EXPECT_EQ(std::to_string(used) + char(buffer[2]) + char(buffer[10 * 107 + 2]), "1640cm");
}

} // namespace
