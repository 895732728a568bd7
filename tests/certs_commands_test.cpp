// SPDX-License-Identifier: Apache-2.0
// What callers have the secure world do with certificates and the device key: certificate
// replacement (commands 11 and 27, with RA_TID from the ra_uid file and the archive of the answer
// in /nv1, which karstctl_certs_test refreshes), signing requests (13), attestation sign and
// verify (14, 15), block verify (17), attestation security validation (24) with its result
// mapping, and certificate authentication (30) with its three outcomes.
#include "attestation/att_support.hpp"
#include "support/openssl_tools.hpp"

using namespace karst::test;

namespace {

const std::string FAILED = "TEEC_InvokeCommand failed with code 0x";
const std::string NOT_READ = R"(\[E:readbin:\d+\] Failed to open file:.*\n)";
const std::string ANY = R"((.*\n)*)";

uintptr_t word(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

// Dispatcher number with words 0, 1, 4 and 5, in a session of its own.
int dispatch(uint32_t number, const char *word4, const char *word5 = nullptr, uint32_t word1 = 0,
             uint32_t word0 = 0) {
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, word0, word1, 0, word(word4), 0, word(word5));
    return in_session([&] { return pta_invoke_cmd(number, block); });
}

int verify(std::string args) {
    return dispatch(PTA_DALU_CMD_ATT_VERIFY, args.data());
}

class CertsTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }
    const std::string cert_ = to_text(certificates().leaf.data(), certificates().leaf.size());
    const uint8_t *cert_data_ = certificates().leaf.data();
    const uint32_t cert_size_ = static_cast<uint32_t>(certificates().leaf.size());
};

// A file goes in a certificate block under its URI; import mode sends the caller's bytes as they
// are, under the URI given (31 characters at most) or the one of index 0. Refusals come before
// the secure world, which refuses bytes that are not a certificate.
TEST_F(CertsTest, ReplacementSendsABlockOrTheCallersBytesUnderTheUri) {
    const char *file = certificates().leaf_path.c_str();
    EXPECT_EQ(pta20_crt_replace(0, file, 0) + pta20_crt_replace(6, file, 0), -2);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a bad index";
    ASSERT_EQ(pta20_crt_replace(5, file, 0x5a), 0);
    EXPECT_EQ(shape(), "11 01cc 25i 65536i v90,0 -");
    EXPECT_EQ(sent(0), std::string("Systems/1/Certificates/5") + '\0');
    const Bytes block = to_bytes(sent(1));
    ASSERT_EQ(pta20_datablk_check(block.data(), static_cast<uint32_t>(block.size())), 0);
    EXPECT_TRUE(get(block, "Systems/1/Certificates/5") == cert_);
    EXPECT_EQ(get(block, "RA_TID"), "<-1>");
    ASSERT_EQ(pta20_crt_replace_import(nullptr, cert_data_, cert_size_, 1), 0);
    EXPECT_EQ(shape(), "11 01cc 25i " + std::to_string(cert_size_) + "i v1,0 -");
    EXPECT_TRUE(sent(0) + sent(1) == std::string("Systems/1/Certificates/0") + '\0' + cert_);
    ASSERT_EQ(pta20_crt_replace_import(std::string(31, 'u').c_str(), cert_data_, cert_size_, 2), 0);
    EXPECT_EQ(sent(0), std::string(31, 'u') + '\0');

    const uint8_t byte = 1;
    const std::string empty = path("/tmp/empty.der");
    write_file(empty, "");
    const auto crt = [](const std::string &name, const uint8_t *bytes, uint32_t n) {
        return pta_invoke_replace_crt(11, 1, nullptr, 0, name.c_str(), bytes, n);
    };
    const std::string e = R"(\[E:pta_invoke_replace_crt:\d+\] )";
    karst_emu_journal_clear();
    expect_calls(
        {{[&] { return crt(empty, &byte, 1); }, -1, e + "Error parameters\n"},
         {[&] { return pta_invoke_replace_ra_crt(27, 1, nullptr, 0, nullptr, &byte, 0); }, -1,
          R"(\[E:pta_invoke_replace_ra_crt:\d+\] Error parameters\n)"},
         {[&] { return pta_invoke_replace_crt_import(std::string(32, 'u').c_str(), &byte, 1, 0); },
          -1, e + "long uri\n"},
         {[&] { return crt(path("/none"), nullptr, 0); }, -1, NOT_READ + e + "File .* not exist\n"},
         {[&] { return crt(empty, nullptr, 0); }, -1,
          R"(\[E:blk_set:\d+\] Incorrect datablk length 0\n)" + e +
              R"(Failed to set key\[Systems/1/Certificates/1\]\n)"}},
        true);
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    expect_calls({{[] { return pta20_crt_replace_import("x", "junk", 4, 0); }, -1,
                   e + FAILED + "ffff0005 origin 0x4\n"}});
}

// Command 27 in file mode through the dispatcher (index in word 0, option in word 1, the file in
// word 4): RA_TID is bytes 7 to 14 of a ra_uid file long enough, else left out; the answer is
// kept and archived, and lost when its directory cannot be made. Import mode sends the caller's
// bytes: no block, no RA_TID. Attestation validation holds only after an RA replacement, its
// rejection and absence mapped; the routine itself returns the TEE code.
TEST_F(CertsTest, RaReplacementAddsRaTidArchivesTheAnswerAndEnablesValidation) {
    const std::string v = R"(\[E:pta_invoke_att_validate:\d+\] )" + FAILED + "ffff";
    expect_calls({{[] { return pta20_att_security_validate(0x2); }, PTA20_ATT_VALIDATE_REJECTED,
                   v + "3074 origin 0x4\n"},
                  {[] { return pta20_att_security_validate(0x10); }, PTA20_ATT_VALIDATE_NOT_FOUND,
                   v + "0008 origin 0x4\n"},
                  {[] { return pta20_att_security_validate(0); }, -1, v + "0006 origin 0x4\n"},
                  {[] { return in_session([] { return pta_invoke_att_validate(24, 0x10); }); },
                   static_cast<int>(0xFFFF0008u), v + "0008 origin 0x4\n"}});
    EXPECT_EQ(shape(), "24 0001 v16,0 - - -");
    const auto replace = [&] {
        const std::string out = printed(
            0, [&] { return dispatch(27, certificates().leaf_path.c_str(), nullptr, 9, 4); });
        return out + get(to_bytes(sent(1)), "RA_TID");
    };
    const std::string uid = path("/tmp/attestation/ra_uid");
    const std::string i = R"(\[I:pta_invoke_replace_ra_crt:\d+\] File )" + uid;
    EXPECT_TRUE(matches(replace(), NOT_READ + i + " not exist\n<-1>"));
    write_bytes(uid, {});
    EXPECT_EQ(replace(), "<-1>");
    write_bytes(uid, pattern(14));
    EXPECT_TRUE(matches(replace(), i + " too short for RA_TID\n<-1>"));
    write_bytes(uid, pattern(20));
    EXPECT_EQ(replace(), "\x07\x08\x09\x0a\x0b\x0c\x0d\x0e");
    EXPECT_EQ(shape(), "27 c1cc 25i 65536i v9,0 66560o");
    EXPECT_EQ(read_file(path("/tmp/attestation/ra_data.bin")).size(), 66560u) << "the answer";
    EXPECT_TRUE(exists(path("/tmp/attestation/ra_data.tgz")) && exists(path("/nv1/ra_data.tgz")));
    EXPECT_EQ(pta20_att_security_validate(0x3), 0);
    ASSERT_EQ(pta20_ra_crt_replace_import(nullptr, cert_data_, cert_size_, 0), 0);
    EXPECT_TRUE(sent(1) == cert_);
    std::filesystem::remove_all(path("/tmp"));
    write_file(path("/tmp"), "a file where the directory should be");
    expect_calls({{[&] { return pta20_ra_crt_replace_import("ra", cert_data_, cert_size_, 0); }, -1,
                   R"(\[E:pta_invoke_replace_ra_crt:\d+\] Failed to create path \()" +
                       path("/tmp/attestation") + "\\)\n"}});
}

// The request is written exactly as reported for the subject sent, from the caller's bytes or
// (dispatched) from an input file; refusals leave the output file untouched, and the secure
// world's refusal is its code.
TEST_F(CertsTest, CsrIsWrittenAsReportedForTheSubjectSentOrNotAtAll) {
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
    const char *out = csr.c_str();
    const auto gen = [&](const char *subject, uint32_t n, const char *from) {
        return pta_invoke_gen_csr(13, out, subject, n, from);
    };
    const std::string e = R"(\[E:pta_invoke_gen_csr:\d+\] )";
    expect_calls(
        {{[&] { return gen("CN=x", 4, input.c_str()); }, -1, e + "Error parameters\n"},
         {[&] { return gen("CN=x", 0, nullptr); }, -1, e + "Error parameters\n"},
         {[&] { return gen(nullptr, 0, path("/none").c_str()); }, -1, NOT_READ + e + ".*\n"},
         {[&] { return gen(nullptr, 0, out); }, -1, e + "Output file .* input file\n"},
         {[&] { return gen("no-equals", 9, nullptr); }, static_cast<int>(TEEC_ERROR_BAD_FORMAT),
          e + FAILED + "ffff0005 origin 0x4\n"}},
        true);
    EXPECT_EQ(read_file(csr), "previous");
}

// The signature is written as long as reported, and the secure world accepts it for the data
// signed only (the file read as data, the other as signature). Fields are split at ':' (empty
// ones skipped) in place, each taken printed on its line. A data path of 60 characters:
// "<path>.sig" is cut to 63; at 63 characters the cut signature path is the data path itself:
// refused, data kept. Missing files fail before the secure world; a block file is sent whole for
// the secure world's check (which passes a good one in the failure sweep).
TEST_F(CertsTest, SignVerifyAndBlockVerify) {
    const std::string data = path("/tmp/measurements.bin");
    const std::string sig = data + ".sig";
    write_file(data, std::string("boot measurements\0\x01\x02", 20));
    ASSERT_EQ(dispatch(PTA_DALU_CMD_ATT_SIGN, data.c_str(), nullptr, 3), 0);
    const std::string sig_size = std::to_string(journal().back().params[2].output_size);
    EXPECT_EQ(shape(), "14 0cc1 v3,0 20i 1024o -");
    EXPECT_EQ(std::to_string(read_file(sig).size()), sig_size);
    const std::string usage = "parameters should be data:sig\n";
    std::string args = ":" + data + "::" + sig + ":c:";
    expect_calls(
        {{[&] { return pta_invoke_att_verify(15, args.data()); }, 0, data + "\n" + sig + "\n"},
         {[] { return pta_invoke_att_verify(15, nullptr); }, -1, usage}},
        true);
    EXPECT_EQ(shape(), "15 00cc 20i " + sig_size + "i - -");
    EXPECT_EQ(args, ":" + data + '\0' + ":" + sig + '\0' + "c:");
    const auto sign = [](const std::string &f) {
        return dispatch(PTA_DALU_CMD_ATT_SIGN, f.c_str());
    };
    const auto check = [](const std::string &f) {
        return dispatch(PTA_DALU_CMD_BLK_VERIFY, f.c_str());
    };
    std::string name = path("/");
    name += std::string(60 - name.size(), 'f');
    write_file(name, "x");
    ASSERT_EQ(sign(name), 0);
    EXPECT_FALSE(read_file(name + ".si").empty());
    write_file(name + "sig", "x");
    printed(-1, [&] { return sign(name + "sig"); });
    EXPECT_EQ(read_file(name + "sig"), "x");
    write_file(data, std::string("boot Measurements\0\x01\x02", 20));
    Bytes blk = new_block(256);
    blk[40] ^= 1; // the CRC no longer holds
    write_bytes(name, blk);
    const std::string none = path("/tmp/none");
    karst_emu_journal_clear();
    expect_calls(
        {{[] { return verify("abc") + verify(":::"); }, -2, "abc\n" + usage + usage},
         {[&] { return verify(none + ":" + sig) + verify(sig + ":" + none); }, -2, ANY},
         {[&] { return sign(none) + check(none); }, -2, ANY},
         {[&] { return verify(data + ":" + sig); }, static_cast<int>(0xFFFF3072u),
          R"((.*\n){2}\[E:pta_invoke_att_verify:\d+\] )" + FAILED + "ffff3072 origin 0x4\n"},
         {[&] { return check(name); }, static_cast<int>(TEEC_ERROR_BAD_FORMAT),
          R"(\[E:pta_invoke_blk_verify:\d+\] )" + FAILED + "ffff0005 origin 0x4\n"}});
    EXPECT_EQ(shape(), "17 000c 256i - - -");
    EXPECT_EQ(karst_emu_journal_count(), 2u) << "only the last two reach the secure world";
}

// In memory, the issuer second in a chain: 0; the secure world's refusal: 1; a local failure:
// -1 (only the two refusals reach the secure world); a length word wider than 32 bits is refused,
// never cut.
TEST_F(CertsTest, AuthenticationHasThreeOutcomes) {
    const CertificateSet &c = certificates();
    const auto auth = [](const Bytes &first, uintptr_t first_len, const Bytes &second,
                         uintptr_t extra = 0) {
        const uintptr_t words[] = {word(first.data()), first_len, word(second.data()),
                                   second.size() + extra};
        return pta20_auth_certs(words);
    };
    const Bytes chain = join({c.stranger, c.ca});
    EXPECT_EQ(auth(c.leaf, c.leaf.size(), chain), 0);
    EXPECT_EQ(shape(), "30 00cc " + std::to_string(c.leaf.size()) + "i " +
                           std::to_string(chain.size()) + "i - -");
    karst_emu_journal_clear();
    const std::string zero = path("/zero.der");
    write_file(zero, "");
    const std::string a = R"(\[E:_pta_invoke_auth_certs:\d+\] )" + FAILED + "ffff";
    expect_calls({{[&] { return auth(c.leaf, c.leaf.size(), c.stranger); }, 1, a + "3072.*\n"},
                  {[&] { return auth(bytes_of("junk"), 4, c.ca); }, 1, a + "0005 origin 0x4\n"},
                  {[&] { return dispatch(30, zero.c_str(), c.ca_path.c_str()); }, -1, ""},
                  {[&] { return dispatch(30, c.leaf_path.c_str(), path("/none").c_str()); }, -1,
                   NOT_READ + R"(\[E:pta_invoke_auth_certs:\d+\] File .*/none not exist\n)"}});
    EXPECT_EQ(karst_emu_journal_count(), 2u);
    // A 32-bit platform has no wider word to refuse.
    const auto wide = static_cast<uintptr_t>(uint64_t{1} << 32);
    EXPECT_EQ(auth(c.leaf, c.leaf.size() + wide, c.ca) + auth(c.leaf, c.leaf.size(), c.ca, wide),
              wide != 0 ? -2 : 0);
}

} // namespace
