// Certificate replacement (commands 11 and 27): what reaches the secure world in file and import
// mode, the refusals before it, and the remote attestation extras: RA_TID taken from the ra_uid
// file, and the archive of the answer in /nv1 that a refresh hands back.
#include "attestation/att_support.hpp"
#include "support/openssl_tools.hpp"

using namespace karst::test;

namespace {

class CertReplaceTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }
    const std::string cert_ = to_text(certificates().leaf.data(), certificates().leaf.size());
    const uint8_t *cert_data_ = certificates().leaf.data();
    const uint32_t cert_size_ = static_cast<uint32_t>(certificates().leaf.size());
};

TEST_F(CertReplaceTest, FileIsSentInACertificateBlockUnderItsUriAndImportSendsBytesUnchanged) {
    const char *file = certificates().leaf_path.c_str();
    EXPECT_EQ(pta20_crt_replace(0, file, 0) + pta20_crt_replace(6, file, 0), -2);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a bad index";
    ASSERT_EQ(pta20_crt_replace(5, file, 0x5a), 0);
    EXPECT_EQ(shape(), "11 01cc 25i 65536i v90,0 -");
    EXPECT_EQ(sent(0), std::string("Systems/1/Certificates/5", 25));
    const Bytes block = to_bytes(sent(1));
    ASSERT_EQ(pta20_datablk_check(block.data(), static_cast<uint32_t>(block.size())), 0);
    EXPECT_TRUE(get(block, "Systems/1/Certificates/5") == cert_);
    EXPECT_EQ(get(block, "RA_TID"), "<-1>");
    // Import mode: the caller's bytes as they are, under the URI given (31 characters at most)
    // or the one of index 0.
    ASSERT_EQ(pta20_crt_replace_import(nullptr, cert_data_, cert_size_, 1), 0);
    EXPECT_EQ(shape(), "11 01cc 25i " + std::to_string(cert_size_) + "i v1,0 -");
    EXPECT_TRUE(sent(0) + sent(1) == std::string("Systems/1/Certificates/0", 25) + cert_);
    ASSERT_EQ(pta20_crt_replace_import(std::string(31, 'u').c_str(), cert_data_, cert_size_, 2), 0);
    EXPECT_EQ(sent(0), std::string(31, 'u') + '\0');
    // The secure world refuses bytes that are not a certificate.
    EXPECT_TRUE(is_error(printed(-1, [] { return pta20_crt_replace_import("x", "junk", 4, 0); }),
                         "pta_invoke_replace_crt",
                         "TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4"));
}

TEST_F(CertReplaceTest, RefusalsBeforeTheSecureWorld) {
    const uint8_t byte = 1;
    const std::string missing = path("/tmp/missing.der");
    const std::string empty = path("/tmp/empty.der");
    write_file(empty, "");
    const std::string e = R"(\[E:pta_invoke_replace_crt:\d+\] )";
    EXPECT_TRUE(matches(
        in_session_printed(
            -5,
            [&] {
                return pta_invoke_replace_crt(11, 1, nullptr, 0, empty.c_str(), &byte, 1) +
                       pta_invoke_replace_ra_crt(27, 1, nullptr, 0, nullptr, &byte, 0) +
                       pta_invoke_replace_crt_import(std::string(32, 'u').c_str(), &byte, 1, 0) +
                       pta_invoke_replace_crt(11, 1, nullptr, 0, missing.c_str(), nullptr, 0) +
                       pta_invoke_replace_crt(11, 1, nullptr, 0, empty.c_str(), nullptr, 0);
            }),
        e + "Error parameters\n" + R"(\[E:pta_invoke_replace_ra_crt:\d+\] Error parameters\n)" + e +
            "long uri\n" + R"(\[E:readbin:\d+\] Failed to open file:.*\n)" + e + "File " + missing +
            " not exist\n" + R"(\[E:blk_set:\d+\] Incorrect datablk length 0\n)" + e +
            R"(Failed to set key\[Systems/1/Certificates/1\]\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(CertReplaceTest, RaReplacementAddsRaTidFromAUsableRaUidFileAndArchivesTheAnswer) {
    // Command 27 in file mode through the dispatcher: index in word 0, option in word 1, the
    // certificate file in word 4. What it printed, and RA_TID as the block carried it.
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 4, 9, 0, reinterpret_cast<uintptr_t>(certificates().leaf_path.c_str()), 0, 0);
    const auto replace = [&] {
        const std::string out = in_session_printed(0, [&] { return pta_invoke_cmd(27, block); });
        return out + get(to_bytes(sent(1)), "RA_TID");
    };
    // The ra_uid file missing, empty, too short: RA_TID is left out.
    const std::string uid = path("/tmp/attestation/ra_uid");
    const std::string i = R"(\[I:pta_invoke_replace_ra_crt:\d+\] File )" + uid;
    EXPECT_TRUE(matches(replace(),
                        R"(\[E:readbin:\d+\] Failed to open file:.*\n)" + i + " not exist\n<-1>"));
    for (const auto &[size, message] :
         {std::pair<size_t, std::string>{0, ""}, {14, i + " too short for RA_TID\n"}}) {
        write_bytes(uid, pattern(size));
        EXPECT_TRUE(matches(replace(), message + "<-1>"));
    }
    write_bytes(uid, pattern(20));
    EXPECT_EQ(replace(), "\x07\x08\x09\x0a\x0b\x0c\x0d\x0e") << "bytes 7 to 14 of ra_uid";
    EXPECT_EQ(shape(), "27 c1cc 25i 65536i v9,0 66560o");
    const std::string answer = read_file(path("/tmp/attestation/ra_data.bin"));
    ASSERT_EQ(answer.size(), 66560u);
    EXPECT_NE(answer.find("tid=0708090a0b0c0d0e\n"), std::string::npos);
    // The archive in /nv1 is what a refresh reads, not the copy left behind.
    std::filesystem::remove(path("/tmp/attestation/ra_data.bin"));
    EXPECT_EQ(pta20_ra_refresh(nullptr, 0), 0);
    EXPECT_TRUE(read_file(path("/tmp/attestation/ra_data.bin")) == answer);
    // Import mode sends the caller's bytes: no block, no RA_TID even with a ra_uid file.
    ASSERT_EQ(pta20_ra_crt_replace_import(nullptr, cert_data_, cert_size_, 0), 0);
    EXPECT_TRUE(sent(1) == cert_);
    EXPECT_NE(read_file(path("/tmp/attestation/ra_data.bin")).find("tid=0000000000000000\n"),
              std::string::npos);
    // The answer is lost when its directory cannot be made.
    std::filesystem::remove_all(path("/tmp"));
    std::filesystem::remove(path("/nv1/ra_data.tgz"));
    write_file(path("/tmp"), "a file where the directory should be");
    EXPECT_TRUE(is_error(
        printed(-1, [&] { return pta20_ra_crt_replace_import("ra", cert_data_, cert_size_, 0); }),
        "pta_invoke_replace_ra_crt", "Failed to create path (" + path("/tmp/attestation") + ")"));
    EXPECT_FALSE(exists(path("/nv1/ra_data.tgz")));
}

} // namespace
