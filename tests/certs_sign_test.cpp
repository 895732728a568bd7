// What the device key does for callers: certificate signing requests (command 13), attestation
// sign and verify (14, 15, the signature checked with OpenSSL) and block verify (17); then
// attestation security validation (24) with its result mapping, and certificate authentication
// (30) with its three outcomes (karstctl_certs_test runs it on files).
#include "attestation/att_support.hpp"
#include "support/openssl_tools.hpp"

using namespace karst::test;
using karst::shell::quote;

namespace {

const std::string FAILED = "TEEC_InvokeCommand failed with code 0x";

uintptr_t word(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

// Dispatcher number with words 1, 4 and 5, in a session of its own.
int dispatch(uint32_t number, const char *word4, const char *word5 = nullptr, uint32_t word1 = 0) {
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, word1, 0, word(word4), 0, word(word5));
    return in_session([&] { return pta_invoke_cmd(number, block); });
}

int verify(std::string args) {
    return dispatch(PTA_DALU_CMD_ATT_VERIFY, args.data());
}

class SignTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }
};

// The request is written exactly as reported for the subject sent, from the caller's bytes or
// (dispatched) from an input file; refusals leave the output file untouched, and the secure
// world's refusal is its code.
TEST_F(SignTest, CsrIsWrittenAsReportedForTheSubjectSentOrNotAtAll) {
    const std::string csr = path("/tmp/bmc.csr");
    ASSERT_EQ(pta20_gen_csr_import(csr.c_str(), "CN=bmc-0042,O=karst", 19), 0);
    EXPECT_EQ(shape(), "13 0cc1 v0,0 2048o 19i -");
    EXPECT_EQ(sent(2), "CN=bmc-0042,O=karst");
    EXPECT_EQ(read_file(csr).size(), journal().back().params[1].output_size) << "as reported";
    const std::string input = path("/tmp/subject.txt");
    write_file(input, "CN=from-file\n");
    EXPECT_EQ(dispatch(PTA_DALU_CMD_GEN_CSR, csr.c_str(), input.c_str()), 0);
    EXPECT_EQ(sent(2), "CN=from-file\n");
    write_file(csr, "previous");
    EXPECT_EQ(pta20_gen_csr_import(nullptr, "CN=x", 4) +
                  pta20_gen_csr_import(csr.c_str(), nullptr, 4),
              -2);
    const std::string e = R"(\[E:pta_invoke_gen_csr:\d+\] )";
    std::vector<int> got;
    ASSERT_EQ(pta_open_session(), 0u);
    const std::string out = capture_stdout([&] {
        got = {pta_invoke_gen_csr(13, csr.c_str(), "CN=x", 4, input.c_str()),
               pta_invoke_gen_csr_import(csr.c_str(), "CN=x", 0),
               pta_invoke_gen_csr(13, csr.c_str(), nullptr, 0, "/none"),
               pta_invoke_gen_csr(13, csr.c_str(), nullptr, 0, csr.c_str()),
               pta_invoke_gen_csr_import(csr.c_str(), "no-equals", 9)};
    });
    pta_close_session();
    EXPECT_EQ(got, (std::vector<int>{-1, -1, -1, -1, static_cast<int>(TEEC_ERROR_BAD_FORMAT)}));
    EXPECT_TRUE(matches(
        out, "(" + e + "Error parameters\n){2}" + R"(\[E:readbin:\d+\] Failed to open file:.*\n)" +
                 e + "File /none not exist\n" + e + "Output file .* is the input file\n" + e +
                 FAILED + "ffff0005 origin 0x4\n"));
    EXPECT_EQ(read_file(csr), "previous");
}

TEST_F(SignTest, SignatureVerifiesWithTheDeviceKeyAndOnlyForTheDataSigned) {
    const std::string data = path("/tmp/measurements.bin");
    const std::string sig = data + ".sig";
    const std::string csr = path("/tmp/device.csr");
    const std::string pub = path("/tmp/device.pem");
    ASSERT_TRUE(pta20_gen_csr_import(csr.c_str(), "CN=device", 9) == 0 &&
                public_key_of_csr(csr, pub));
    const auto openssl_verifies = [&] {
        return sh("openssl dgst -sha256 -verify " + quote(pub) + " -signature " + quote(sig) + " " +
                  quote(data) + " >/dev/null 2>&1") == 0;
    };
    write_file(data, std::string("boot measurements\0\x01\x02", 20));
    ASSERT_EQ(dispatch(PTA_DALU_CMD_ATT_SIGN, data.c_str(), nullptr, 3), 0);
    const std::string sig_size = std::to_string(journal().back().params[2].output_size);
    EXPECT_EQ(shape(), "14 0cc1 v3,0 20i 1024o -");
    EXPECT_EQ(std::to_string(read_file(sig).size()), sig_size);
    EXPECT_EQ(printed(0, [&] { return verify(data + ":" + sig); }), data + "\n" + sig + "\n");
    EXPECT_EQ(shape(), "15 00cc 20i " + sig_size + "i - -");
    EXPECT_TRUE(openssl_verifies());
    write_file(data, std::string("boot Measurements\0\x01\x02", 20));
    EXPECT_TRUE(
        matches(printed(static_cast<int>(0xFFFF3072u), [&] { return verify(data + ":" + sig); }),
                R"((.*\n){2}\[E:pta_invoke_att_verify:\d+\] )" + FAILED + "ffff3072 origin 0x4\n"));
    EXPECT_FALSE(openssl_verifies());
}

TEST_F(SignTest, VerifyArgumentStringSignaturePathAndBlockVerify) {
    const std::string a = path("/tmp/a");
    write_file(a, "signed data");
    ASSERT_EQ(dispatch(PTA_DALU_CMD_ATT_SIGN, a.c_str()), 0);
    // Fields are split at ':' (empty ones skipped) in place, each taken printed on its line.
    const std::string usage = "parameters should be data:sig\n";
    EXPECT_EQ(printed(-1, [] { return verify("abc"); }) + printed(-1, [] { return verify(":::"); }),
              "abc\n" + usage + usage);
    std::string args = ":" + a + "::" + a + ".sig:c:";
    EXPECT_EQ(in_session_printed(0, [&] { return pta_invoke_att_verify(15, args.data()); }),
              a + "\n" + a + ".sig\n");
    EXPECT_EQ(args, ":" + a + '\0' + ":" + a + ".sig" + '\0' + "c:");
    EXPECT_EQ(in_session_printed(-1, [] { return pta_invoke_att_verify(15, nullptr); }), usage);
    // A data path of 60 characters: "<path>.sig" is cut to 63; at 63 characters the cut
    // signature path is the data path itself: refused, data kept.
    std::string data = path("/");
    data += std::string(60 - data.size(), 'f');
    write_file(data, "x");
    ASSERT_EQ(dispatch(PTA_DALU_CMD_ATT_SIGN, data.c_str()), 0);
    EXPECT_FALSE(read_file(data + ".si").empty());
    write_file(data + "sig", "x");
    printed(-1, [&] { return dispatch(PTA_DALU_CMD_ATT_SIGN, (data + "sig").c_str()); });
    EXPECT_EQ(read_file(data + "sig"), "x");
    // Missing files fail without reaching the secure world.
    const std::string none = path("/tmp/none");
    karst_emu_journal_clear();
    printed(-5, [&] {
        return dispatch(PTA_DALU_CMD_ATT_SIGN, none.c_str()) + verify(none + ":" + a) +
               verify(a + ":" + none) + dispatch(PTA_DALU_CMD_BLK_VERIFY, none.c_str()) +
               dispatch(PTA_DALU_CMD_BLK_VERIFY, nullptr);
    });
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    // A block file is sent whole for the secure world's check.
    Bytes blk = new_block(256);
    ASSERT_EQ(set(blk, "fw_img", bytes_of("payload")), 0);
    blk[40] ^= 1; // the CRC no longer holds
    write_bytes(a, blk);
    EXPECT_TRUE(matches(printed(static_cast<int>(TEEC_ERROR_BAD_FORMAT),
                                [&] { return dispatch(PTA_DALU_CMD_BLK_VERIFY, a.c_str()); }),
                        R"(\[E:pta_invoke_blk_verify:\d+\] )" + FAILED + "ffff0005 origin 0x4\n"));
    EXPECT_EQ(shape(), "17 000c 256i - - -");
    blk[40] ^= 1;
    write_bytes(a, blk);
    EXPECT_EQ(dispatch(PTA_DALU_CMD_BLK_VERIFY, a.c_str()), 0);
}

// Device identity holds; remote attestation only after an RA certificate replacement; the
// routine itself returns the TEE code; a session that cannot be opened maps to -1.
TEST_F(SignTest, ValidationAnswersAreMapped) {
    const Bytes &leaf = certificates().leaf;
    EXPECT_EQ(pta20_att_security_validate(0x1), 0);
    EXPECT_EQ(shape(), "24 0001 v1,0 - - -");
    std::vector<int> got;
    std::string out = capture_stdout([&] {
        got = {pta20_att_security_validate(0x2), pta20_att_security_validate(0x10),
               pta20_att_security_validate(0)};
    });
    EXPECT_EQ(got,
              (std::vector<int>{PTA20_ATT_VALIDATE_REJECTED, PTA20_ATT_VALIDATE_NOT_FOUND, -1}));
    const std::string e = R"(\[E:pta_invoke_att_validate:\d+\] )" + FAILED + "ffff";
    EXPECT_TRUE(
        matches(out, e + "3074 origin 0x4\n" + e + "0008 origin 0x4\n" + e + "0006 origin 0x4\n"));
    ASSERT_EQ(pta20_ra_crt_replace_import(nullptr, leaf.data(), uint32_t(leaf.size()), 0), 0);
    EXPECT_EQ(pta20_att_security_validate(0x3), 0);
    ASSERT_EQ(pta_open_session(), 0u);
    capture_stdout([] {
        EXPECT_EQ(static_cast<uint32_t>(pta_invoke_att_validate(24, 0x10)), 0xFFFF0008u);
        EXPECT_EQ(pta20_att_security_validate(0x1), -1);
    });
    pta_close_session();
}

// In memory, the issuer second in a chain: 0; the secure world's refusal: 1; a local failure:
// -1 (only the two refusals reach the secure world). A length word wider than 32 bits is refused,
// never cut.
TEST_F(SignTest, AuthenticationHasThreeOutcomes) {
    const CertificateSet &c = certificates();
    const auto auth = [](const Bytes &first, uint64_t first_len, const Bytes &second,
                         uint64_t extra = 0) {
        const uintptr_t words[] = {word(first.data()), first_len, word(second.data()),
                                   second.size() + extra};
        return pta20_auth_certs(words);
    };
    const Bytes chain = join({c.stranger, c.ca});
    EXPECT_EQ(auth(c.leaf, c.leaf.size(), chain), 0);
    EXPECT_EQ(shape(), "30 00cc " + std::to_string(c.leaf.size()) + "i " +
                           std::to_string(chain.size()) + "i - -");
    karst_emu_journal_clear();
    const uint64_t wide = uint64_t{1} << 32;
    const std::string zero = path("/zero.der");
    const std::string none = path("/none.der");
    write_file(zero, "");
    std::vector<int> got;
    const std::string out = capture_stdout([&] {
        got = {auth(c.leaf, c.leaf.size(), c.stranger),
               auth(bytes_of("junk"), 4, c.ca),
               auth(c.leaf, 0, c.ca),
               auth({}, 4, c.ca),
               pta20_auth_certs(nullptr),
               auth(c.leaf, c.leaf.size() + wide, c.ca),
               auth(c.leaf, c.leaf.size(), c.ca, wide),
               dispatch(PTA_DALU_CMD_AUTH_CERTS, zero.c_str(), c.ca_path.c_str()),
               dispatch(PTA_DALU_CMD_AUTH_CERTS, nullptr, c.ca_path.c_str()),
               dispatch(PTA_DALU_CMD_AUTH_CERTS, c.leaf_path.c_str(), none.c_str())};
    });
    EXPECT_EQ(got, (std::vector<int>{1, 1, -1, -1, -1, -1, -1, -1, -1, -1}));
    const std::string e = R"(\[E:_pta_invoke_auth_certs:\d+\] )" + FAILED + "ffff";
    EXPECT_TRUE(
        matches(out, e + "3072 origin 0x4\n" + e + "0005 origin 0x4\n" +
                         R"(\[E:readbin:\d+\] Failed to open file:.*/none.der\n)" +
                         R"(\[E:pta_invoke_auth_certs:\d+\] File .*/none.der not exist\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 2u);
}

} // namespace
