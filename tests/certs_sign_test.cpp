// Attestation sign and verify (commands 14, 15) and block verify (17): signatures that openssl
// verifies with the device's public key and that the secure world accepts only for the data
// signed; the argument string of verify; blocks checked by the secure world.
#include "support/blocks.hpp"
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include "core/shell.hpp"

#include <regex>

using namespace karst::test;
using karst::shell::quote;

namespace {

class SignTest : public KarstTest {
  protected:
    int sign(const std::string &file, uint32_t option = 0) {
        if (pta_open_session() != 0) {
            return -100;
        }
        uintptr_t block[PTA20_ARGS_WORDS];
        pta20_args(block, 0, option, 0, reinterpret_cast<uintptr_t>(file.c_str()), 0, 0);
        const int rc = pta_invoke_cmd(PTA_DALU_CMD_ATT_SIGN, block);
        pta_close_session();
        return rc;
    }
    int verify(std::string args) {
        if (pta_open_session() != 0) {
            return -100;
        }
        const int rc = pta_invoke_cmd_default(PTA_DALU_CMD_ATT_VERIFY, 0,
                                              reinterpret_cast<uintptr_t>(args.data()));
        pta_close_session();
        return rc;
    }
};

bool matches(const std::string &out, const std::string &re) {
    return std::regex_match(out, std::regex(re));
}

TEST_F(SignTest, SignatureVerifiesWithTheDeviceKeyAndOnlyForTheDataSigned) {
    const std::string data = path("/tmp/measurements.bin");
    write_file(data, std::string("boot measurements\0\x01\x02", 20));
    ASSERT_EQ(sign(data, 3), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 14u);
    EXPECT_EQ(r.param_types, 0x0CC1u);
    EXPECT_EQ(r.params[0].a, 3u);
    EXPECT_EQ(r.params[1].size, 20u);
    EXPECT_EQ(r.params[2].size, 1024u);
    EXPECT_EQ(read_file(data + ".sig").size(), r.params[2].output_size);

    EXPECT_EQ(verify(data + ":" + data + ".sig"), 0);

    // openssl checks the signature with the public key of a CSR from the same device.
    const std::string csr = path("/tmp/device.csr");
    const std::string pub = path("/tmp/device.pem");
    ASSERT_EQ(pta20_gen_csr_import(csr.c_str(), "CN=device", 9), 0);
    ASSERT_TRUE(public_key_of_csr(csr, pub));
    EXPECT_EQ(sh("openssl dgst -sha256 -verify " + quote(pub) + " -signature " +
                 quote(data + ".sig") + " " + quote(data) + " >/dev/null 2>&1"),
              0);

    std::string changed = read_file(data);
    changed[5] ^= 0x20;
    write_file(data, changed);
    std::string out;
    out = capture_stdout(
        [&] { EXPECT_EQ(static_cast<uint32_t>(verify(data + ":" + data + ".sig")), 0xFFFF3072u); });
    EXPECT_TRUE(matches(
        out,
        ".*\n.*\n"
        R"(\[E:pta_invoke_att_verify:\d+\] TEEC_InvokeCommand failed with code 0xffff3072 origin 0x4\n)"));
    EXPECT_NE(sh("openssl dgst -sha256 -verify " + quote(pub) + " -signature " +
                 quote(data + ".sig") + " " + quote(data) + " >/dev/null 2>&1"),
              0);
}

TEST_F(SignTest, SignaturePathIsCutTo63Characters) {
    const std::string dir = path("/d");
    ASSERT_EQ(sh("mkdir -p " + quote(dir)), 0);
    std::string data = dir + "/";
    data += std::string(62 - data.size(), 'f'); // 62 characters: ".sig" does not fit
    write_file(data, "x");
    ASSERT_EQ(sign(data), 0);
    EXPECT_FALSE(read_file((data + ".sig").substr(0, 63)).empty());
}

TEST_F(SignTest, VerifyArgumentStringIsSplitAtColons) {
    const std::string a = path("/tmp/a");
    write_file(a, "signed data");
    ASSERT_EQ(sign(a), 0);
    const std::string sig = a + ".sig";

    std::string out = capture_stdout([&] { EXPECT_EQ(verify("abc"), -1); });
    EXPECT_EQ(out, "abc\nparameters should be data:sig\n");
    out = capture_stdout([&] { EXPECT_EQ(verify(":::"), -1); });
    EXPECT_EQ(out, "parameters should be data:sig\n");

    out = capture_stdout([&] { EXPECT_EQ(verify(":" + a + "::" + sig + ":ignored:"), 0); });
    EXPECT_EQ(out, a + "\n" + sig + "\n");

    // Split in place: the separator behind each field taken becomes its end.
    std::string args = a + ":" + sig + ":c";
    ASSERT_EQ(pta_open_session(), 0u);
    capture_stdout([&] { EXPECT_EQ(pta_invoke_att_verify(15, args.data()), 0); });
    out = capture_stdout([&] { EXPECT_EQ(pta_invoke_att_verify(15, nullptr), -1); });
    pta_close_session();
    EXPECT_EQ(args, a + '\0' + sig + '\0' + "c");
    EXPECT_EQ(out, "parameters should be data:sig\n");
}

TEST_F(SignTest, MissingFilesFailWithoutReachingTheSecureWorld) {
    const std::string a = path("/tmp/a");
    const std::string none = path("/tmp/none");
    write_file(a, "data");
    capture_stdout([&] {
        EXPECT_EQ(sign(none), -1);
        EXPECT_EQ(verify(none + ":" + a), -1);
        EXPECT_EQ(verify(a + ":" + none), -1);
        ASSERT_EQ(pta_open_session(), 0u);
        EXPECT_EQ(pta_invoke_blk_verify(17, none.c_str()), -1);
        EXPECT_EQ(pta_invoke_blk_verify(17, nullptr), -1);
        EXPECT_EQ(pta_invoke_att_sign(14, 0, nullptr), -1);
        pta_close_session();
    });
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(SignTest, BlockVerifyAcceptsWellFormedBlocksOnly) {
    Bytes blk = new_block(256);
    ASSERT_EQ(set(blk, "fw_img", bytes_of("payload")), 0);
    const std::string file = path("/tmp/block.bin");
    write_file(file, std::string(blk.begin(), blk.end()));
    ASSERT_EQ(pta_open_session(), 0u);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(file.c_str()), 0, 0);
    EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_BLK_VERIFY, block), 0);
    EXPECT_EQ(journal().at(0).param_types, 0x000Cu);
    EXPECT_EQ(journal().at(0).params[0].size, 256u);

    blk[40] ^= 1; // the CRC no longer holds
    write_file(file, std::string(blk.begin(), blk.end()));
    int rc = 0;
    const std::string out =
        capture_stdout([&] { rc = pta_invoke_cmd(PTA_DALU_CMD_BLK_VERIFY, block); });
    pta_close_session();
    EXPECT_EQ(static_cast<uint32_t>(rc), TEEC_ERROR_BAD_FORMAT);
    EXPECT_TRUE(matches(
        out,
        R"(\[E:pta_invoke_blk_verify:\d+\] TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4\n)"));
}

TEST_F(SignTest, ClientFailuresReturnTheTeeCodeAndReleaseEverything) {
    const std::string a = path("/tmp/a");
    write_file(a, "data");
    for (size_t nth : {1, 2}) {
        karst_emu_fail_nth(KARST_EMU_REGISTER, nth, TEEC_ERROR_OUT_OF_MEMORY);
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = sign(a); });
        EXPECT_EQ(static_cast<uint32_t>(rc), TEEC_ERROR_OUT_OF_MEMORY);
        EXPECT_TRUE(matches(
            out,
            R"(\[E:pta_invoke_att_sign:\d+\] TEEC_RegisterSharedMemory failed with code 0xffff000c\n)"));
    }
    EXPECT_NE(sh("test -e " + quote(a + ".sig")), 0);
}

} // namespace
