// The attestation dump from end to end: the data block as the secure world receives it, key by
// key; the result file and its binding of nonce and block; the path handed back; the REE data
// tool's two runs; and the dump without an archive, with one too large, and with failures.
#include "attestation/att_support.hpp"

#include <memory>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

using namespace karst::test;

namespace {

constexpr size_t BLOCK_SIZE = 65536;
constexpr size_t RESULT_SIZE = 66560;
constexpr size_t SIGNED_SIZE = 65536 + 256;

std::string sha256_hex(const Bytes &data) {
    uint8_t digest[SHA256_DIGEST_LENGTH];
    SHA256(data.data(), data.size(), digest);
    std::string out;
    char two[3];
    for (uint8_t b : digest) {
        std::snprintf(two, sizeof two, "%02x", b);
        out += two;
    }
    return out;
}

// Whether signature is the device certificate's key's ECDSA-SHA256 signature over data.
bool signed_by_device(const Bytes &device_cert, const uint8_t *data, size_t n,
                      const uint8_t *signature, size_t sig_len) {
    const unsigned char *p = device_cert.data();
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        d2i_X509(nullptr, &p, static_cast<long>(device_cert.size())), &X509_free);
    if (!cert) {
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    return EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr,
                                X509_get0_pubkey(cert.get())) == 1 &&
           EVP_DigestVerify(ctx.get(), signature, sig_len, data, n) == 1;
}

// Length of the DER item at p (a signature), header included.
size_t der_size(const uint8_t *p) {
    return p[1] < 0x80 ? 2u + p[1] : 3u + p[2];
}

class AttDumpTest : public KarstTest {
  protected:
    std::string spdm(const std::string &inside) const {
        return path("/tmp/spdm/aoc/boot_run/" + inside);
    }
    // Evidence of two devices: a certificate chain, a measurement, both root CAs.
    void write_evidence() {
        make_dirs(spdm("spdm_saved_cert_chains"));
        make_dirs(spdm("spdm_saved_measurements_bins/gpu0"));
        write_bytes(spdm("spdm_saved_cert_chains/dev0.der"), pattern(1200, 1));
        write_bytes(spdm("spdm_saved_measurements_bins/gpu0/m.bin"), pattern(300, 2));
        write_bytes(path("/etc/defaults/spdm_dalu_rootCA.der"), pattern(500, 3));
        write_bytes(path("/etc/defaults/spdm_nv_rootCA.der"), pattern(600, 4));
    }
    // The journal's one dump command.
    karst_emu_invoke_record dump_record() {
        karst_emu_invoke_record found{};
        int count = 0;
        for (const auto &r : journal()) {
            if (r.command == PTA_DALU_CMD_ATT_DUMP) {
                found = r;
                ++count;
            }
        }
        EXPECT_EQ(count, 1);
        return found;
    }
    std::string result_path(const std::string &digest, const std::string &nonce) const {
        return path("/tmp/attestation/attd_" + digest + "_" + nonce + ".bin");
    }
};

TEST_F(AttDumpTest, BlockCarriesEveryKindOfEvidenceAndTheResultIsSignedOverNonceAndBlock) {
    write_evidence();
    char where[512];
    std::string out = capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc123", where, 512), 0); });
    EXPECT_EQ(out, "") << "a complete dump prints nothing";

    const karst_emu_invoke_record r = dump_record();
    EXPECT_EQ(r.param_types, 0xCCCCu);
    EXPECT_EQ(r.params[0].size, RESULT_SIZE);
    EXPECT_EQ(r.params[0].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    EXPECT_EQ(r.params[1].size, 128u);
    EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    EXPECT_EQ(to_text(r.params[2].input, r.params[2].input_kept), "abc123");
    EXPECT_EQ(r.params[2].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
    ASSERT_EQ(r.params[3].input_kept, BLOCK_SIZE);
    EXPECT_EQ(r.params[3].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
    const Bytes block(r.params[3].input, r.params[3].input + BLOCK_SIZE);

    // The block as sent, key by key, in order.
    EXPECT_EQ(le32(block.data() + 4), DATABLK_MAGIC_ATT);
    EXPECT_EQ(le32(block.data()), crc32i(0xFFFFFFFF, block.data() + 4, BLOCK_SIZE - 4));
    const auto pairs = block_pairs(block.data(), block.size());
    ASSERT_EQ(pairs.size(), 4u);
    EXPECT_EQ(pairs[0].first, "ReeData_v1_tgz");
    const auto ree = tgz_files(pairs[0].second);
    ASSERT_EQ(ree.count("ReeData/nonce.txt"), 1u);
    EXPECT_EQ(ree.at("ReeData/nonce.txt"), to_bytes("abc123\n"));
    EXPECT_EQ(pairs[1].first, "SPDMDevInvt_v1_klvs");
    Bytes evidence = {0x16, 4, 'd', 'e', 'v', '0', 0x02, 0x02, 0x04, 0xb0};
    const Bytes chain = pattern(1200, 1);
    evidence.insert(evidence.end(), chain.begin(), chain.end());
    const Bytes measurement_head = {0x16, 1, 'm', 0x02, 0x02, 0x01, 0x2c};
    evidence.insert(evidence.end(), measurement_head.begin(), measurement_head.end());
    const Bytes measurement = pattern(300, 2);
    evidence.insert(evidence.end(), measurement.begin(), measurement.end());
    EXPECT_EQ(pairs[1].second, evidence);
    EXPECT_EQ(pairs[2].first, "Managers/1/SecurityPolicy/SPDM/TrustedCertificates/1");
    EXPECT_EQ(pairs[2].second, pattern(500, 3));
    EXPECT_EQ(pairs[3].first, "Managers/1/SecurityPolicy/SPDM/TrustedCertificates/2");
    EXPECT_EQ(pairs[3].second, pattern(600, 4));

    // The copy as sent, and the tool's clean-up.
    EXPECT_EQ(read_bytes(path("/tmp/spdm_attestation_dump.bin")), block);
    EXPECT_FALSE(exists(path("/tmp/ReeData.tgz")));

    // The result: named by digest info and nonce, bound to both by the device key.
    Bytes bound = to_bytes("abc123");
    bound.insert(bound.end(), block.begin(), block.end());
    const std::string digest = sha256_hex(bound);
    const std::string file = result_path(digest.substr(0, 16), "abc123");
    EXPECT_STREQ(where, file.c_str());
    const Bytes result = read_bytes(file);
    ASSERT_EQ(result.size(), RESULT_SIZE);
    EXPECT_TRUE(std::equal(block.begin(), block.end(), result.begin()));
    const std::string statement = to_text(result.data() + BLOCK_SIZE, 256);
    EXPECT_EQ(statement.substr(0, statement.find('\0')),
              "KARST-ATT v1\nnonce=abc123\nblock-size=65536\nsha256=" + digest + "\n");
    Bytes device_cert(4096);
    uint32_t size = 4096;
    ASSERT_EQ(pta20_get_cert(0, device_cert.data(), &size), 0);
    device_cert.resize(size);
    const uint8_t *sig = result.data() + SIGNED_SIZE;
    EXPECT_TRUE(signed_by_device(device_cert, result.data(), SIGNED_SIZE, sig, der_size(sig)));
    Bytes forged = result;
    forged[100] ^= 1; // one bit of the block
    EXPECT_FALSE(signed_by_device(device_cert, forged.data(), SIGNED_SIZE, sig, der_size(sig)));
}

TEST_F(AttDumpTest, PathIsHandedBackOnlyWhenItFitsWithItsTerminator) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "");
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, "3f2a", 5);
    const std::string file = result_path("3f2a", "abc123");

    std::string exact(file.size(), '#');
    capture_stdout([&] {
        EXPECT_EQ(pta20_att_dump("abc123", exact.data(), static_cast<uint32_t>(exact.size())), 0);
    });
    EXPECT_EQ(exact, std::string(file.size(), '#'));
    // The answer filled nothing of the result buffer: the file is its 66,560 bytes anyway.
    EXPECT_EQ(read_bytes(file), Bytes(RESULT_SIZE, 0));

    std::string longer(file.size() + 4, '#');
    capture_stdout([&] {
        EXPECT_EQ(pta20_att_dump("abc123", longer.data(), static_cast<uint32_t>(file.size() + 1)),
                  0);
    });
    EXPECT_EQ(longer, file + std::string(1, '\0') + "###");

    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc123", nullptr, 1000), 0); });
    EXPECT_TRUE(exists(file));
}

TEST_F(AttDumpTest, WithoutAnArchiveThereIsNoBlockAndTheDumpStillSucceeds) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "");
    char where[512] = {};
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_att_dump("n-1_X", where, sizeof where), 0); });
    const std::string r = R"(:\d+\] )";
    EXPECT_TRUE(matches(out, R"(\[I:spdm_collect_cert_chains)" + r +
                                 "SPDM certificates directory not found: " +
                                 re_escape(spdm("spdm_saved_cert_chains")) + "\n" +
                                 R"(\[I:spdm_collect_measurements)" + r +
                                 "SPDM measurements directory not found: " +
                                 re_escape(spdm("spdm_saved_measurements_bins")) + "\n" +
                                 "Invalid arguments: name = SPDMDevInvt_v1_klvs\n" +
                                 R"(\[I:spdm_add_root_cas)" + r + "SPDM Root CA file not found: " +
                                 re_escape(path("/etc/defaults/spdm_dalu_rootCA.der")) + "\n" +
                                 R"(\[I:spdm_add_root_cas)" + r + "SPDM Root CA file not found: " +
                                 re_escape(path("/etc/defaults/spdm_nv_rootCA.der")) + "\n"));
    const karst_emu_invoke_record rec = dump_record();
    EXPECT_EQ(rec.param_types, 0x0CCCu);
    EXPECT_FALSE(exists(path("/tmp/spdm_attestation_dump.bin")));
    EXPECT_EQ(read_file(log), "2|1|n-1_X\n1|2|\n");
    EXPECT_EQ(std::string(where).rfind(path("/tmp/attestation/attd_"), 0), 0u);
}

TEST_F(AttDumpTest, WithoutEvidenceTheBlockHoldsOnlyTheArchive) {
    std::string out = capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc", nullptr, 0), 0); });
    // The empty evidence buffer is refused by the data block with its length message.
    EXPECT_NE(out.find("] Incorrect datablk length 0\n"), std::string::npos) << out;
    const karst_emu_invoke_record r = dump_record();
    const auto pairs = block_pairs(r.params[3].input, r.params[3].input_kept);
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].first, "ReeData_v1_tgz");
}

TEST_F(AttDumpTest, AnArchiveTooLargeForTheBlockStopsTheDumpBeforeTheSecureWorld) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "head -c 70000 /dev/zero > " + path("/tmp/ReeData.tgz"));
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc123", nullptr, 0), -1); });
    EXPECT_TRUE(
        matches(out, R"(\[E:pta_invoke_att_dump:\d+\] Failed to set key\[ReeData_v1_tgz\]\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_EQ(read_file(log), "2|1|abc123\n") << "mode 2 is not run after this stop";
    EXPECT_FALSE(exists(path("/tmp/spdm_attestation_dump.bin")));
}

TEST_F(AttDumpTest, EachSuccessfulDumpEmptiesTheResultDirectoryAndAFailedOneLeavesIt) {
    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("first", nullptr, 0), 0); });
    const auto first = find_named(path("/tmp/attestation"), "_first.bin");
    ASSERT_EQ(first.size(), 1u);
    write_file(path("/tmp/attestation/ra_data.bin"), "kept by a replacement");

    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("second", nullptr, 0), 0); });
    EXPECT_FALSE(exists(first[0]));
    EXPECT_FALSE(exists(path("/tmp/attestation/ra_data.bin")));
    const auto second = find_named(path("/tmp/attestation"), "_second.bin");
    ASSERT_EQ(second.size(), 1u);

    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "");
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_SECURITY);
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_att_dump("third", nullptr, 0), -1); });
    EXPECT_NE(out.find("[E:_pta_invoke_att_dump:"), std::string::npos);
    EXPECT_NE(out.find("] TEEC_InvokeCommand failed with code 0xffff000f origin 0x4\n"),
              std::string::npos);
    EXPECT_TRUE(exists(second[0])) << "a failed command leaves the directory untouched";
    EXPECT_EQ(read_file(log), "2|1|third\n1|2|\n") << "mode 2 runs whatever the result";
}

// What the secure world answers as digest info becomes part of a file name: anything that is not
// a terminated text of file name characters is refused before the directory is touched.
TEST_F(AttDumpTest, DigestInfoThatCouldLeaveTheResultDirectoryIsRefused) {
    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("keep", nullptr, 0), 0); });
    const auto before = snapshot(root(), {"var/lib/karst-emulator"});
    const std::string unterminated(128, 'a');
    const std::string hostile[] = {"../../../evil", "a/b",        "..",     "x..y",       "sp ace",
                                   "nl\nx",         "semi;colon", "q'uote", "back\\slash"};
    for (const std::string &digest : hostile) {
        karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, digest.c_str(), digest.size() + 1);
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc", nullptr, 0), -1) << digest; });
        EXPECT_TRUE(matches(
            out,
            R"((.*\n)*\[E:_pta_invoke_att_dump:\d+\] Invalid digest info from the secure world\n)"))
            << out;
    }
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, unterminated.data(), unterminated.size());
    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc", nullptr, 0), -1); });
    // The copy of the block is rewritten by each dump; nothing else changed.
    auto after = snapshot(root(), {"var/lib/karst-emulator"});
    after.erase("tmp/spdm_attestation_dump.bin");
    auto expected = before;
    expected.erase("tmp/spdm_attestation_dump.bin");
    EXPECT_EQ(after, expected);

    const std::string fine = "sha256:3f-2a_X.+=,@";
    karst_emu_answer(PTA_DALU_CMD_ATT_DUMP, 1, fine.c_str(), fine.size() + 1);
    capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc", nullptr, 0), 0); });
    EXPECT_TRUE(exists(result_path(fine, "abc")));
}

TEST_F(AttDumpTest, CommandBodyChecksItsArguments) {
    ASSERT_EQ(pta_open_session(), 0u);
    Bytes big(RESULT_SIZE + 1, 0);
    std::string out = capture_stdout([&] {
        EXPECT_EQ(_pta_invoke_att_dump(12, nullptr, nullptr, 0, nullptr, 0), -1);
        EXPECT_EQ(pta_invoke_att_dump(12, nullptr, nullptr, 0), -1);
        EXPECT_EQ(_pta_invoke_att_dump(12, "abc", big.data(), RESULT_SIZE + 1, nullptr, 0), -1);
    });
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_att_dump:\d+\] Miss nonce\n)"
                             R"(\[E:pta_invoke_att_dump:\d+\] Nonce is NULL\n)"
                             R"(\[E:_pta_invoke_att_dump:\d+\] Incorrect datablk size 10401\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    // A block pointer with length 0 is no block; the command ID is always 12.
    out = capture_stdout(
        [&] { EXPECT_EQ(_pta_invoke_att_dump(99, "abc", big.data(), 0, nullptr, 0), 0); });
    ASSERT_EQ(karst_emu_journal_count(), 1u);
    EXPECT_EQ(journal()[0].command, 12u);
    EXPECT_EQ(journal()[0].param_types, 0x0CCCu);

    // Dispatcher number 12: nonce in word 4, path buffer in word 5, its size in word 3.
    char where[300] = {};
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>("viaword4"), sizeof where,
               reinterpret_cast<uintptr_t>(where));
    capture_stdout([&] { EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_ATT_DUMP, block), 0); });
    EXPECT_NE(std::string(where).find("_viaword4.bin"), std::string::npos);
    pta_close_session();

    out = capture_stdout([&] { EXPECT_EQ(pta20_att_dump(nullptr, where, sizeof where), -1); });
    EXPECT_EQ(out, "");
}

// Each registration and the invoke fail in turn: one message, everything released, the tool's
// clean-up still run, and no result file.
TEST_F(AttDumpTest, EveryClientFailureIsReportedOnceAndReleasesEverything) {
    const std::string log = path("/tmp/tool.log");
    install_recording_tool(root(), log, "printf 'x' > " + path("/tmp/ReeData.tgz"));
    for (size_t nth = 1; nth <= 5; ++nth) {
        const karst_emu_op op = nth <= 4 ? KARST_EMU_REGISTER : KARST_EMU_INVOKE;
        karst_emu_fail_nth(op, nth <= 4 ? nth : 1, TEEC_ERROR_OUT_OF_MEMORY);
        const std::string out =
            capture_stdout([&] { EXPECT_EQ(pta20_att_dump("abc", nullptr, 0), -1) << nth; });
        const std::string what = nth <= 4 ? "TEEC_RegisterSharedMemory failed with code 0xffff000c"
                                          : "TEEC_InvokeCommand failed with code 0xffff000c "
                                            "origin 0x4";
        EXPECT_TRUE(matches(out, R"((.*\n)*\[E:_pta_invoke_att_dump:\d+\] )" + what + "\n")) << out;
        karst_emu_stats stats{};
        karst_emu_get_stats(&stats);
        EXPECT_EQ(stats.registered + stats.sessions + stats.contexts, 0u);
        EXPECT_TRUE(find_named(path("/tmp"), "attd_").empty());
    }
    std::string runs;
    for (int i = 0; i < 5; ++i) {
        runs += "2|1|abc\n1|2|\n";
    }
    EXPECT_EQ(read_file(log), runs);
}

} // namespace
