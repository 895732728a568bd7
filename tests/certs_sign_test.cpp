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
    // Dispatcher number with words 1 and 4, in a session of its own.
    static int dispatch(uint32_t number, uint32_t word1, const char *word4) {
        if (pta_open_session() != 0) {
            return -100;
        }
        uintptr_t block[PTA20_ARGS_WORDS];
        pta20_args(block, 0, word1, 0, reinterpret_cast<uintptr_t>(word4), 0, 0);
        const int rc = pta_invoke_cmd(number, block);
        pta_close_session();
        return rc;
    }
    static int sign(const std::string &file, uint32_t option = 0) {
        return dispatch(PTA_DALU_CMD_ATT_SIGN, option, file.c_str());
    }
    static int verify(std::string args) {
        return dispatch(PTA_DALU_CMD_ATT_VERIFY, 0, args.data());
    }
    bool openssl_verifies(const std::string &data, const std::string &sig) {
        const std::string csr = path("/tmp/device.csr");
        const std::string pub = path("/tmp/device.pem");
        return pta20_gen_csr_import(csr.c_str(), "CN=device", 9) == 0 &&
               public_key_of_csr(csr, pub) &&
               sh("openssl dgst -sha256 -verify " + quote(pub) + " -signature " + quote(sig) + " " +
                  quote(data) + " >/dev/null 2>&1") == 0;
    }
};

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

    capture_stdout([&] { EXPECT_EQ(verify(data + ":" + data + ".sig"), 0); });
    EXPECT_TRUE(openssl_verifies(data, data + ".sig"));

    std::string changed = read_file(data);
    changed[5] ^= 0x20;
    write_file(data, changed);
    const std::string out = capture_stdout(
        [&] { EXPECT_EQ(static_cast<uint32_t>(verify(data + ":" + data + ".sig")), 0xFFFF3072u); });
    EXPECT_TRUE(std::regex_search(
        out,
        std::regex(
            R"(\[E:pta_invoke_att_verify:\d+\] TEEC_InvokeCommand failed with code 0xffff3072 origin 0x4\n$)")));
    EXPECT_FALSE(openssl_verifies(data, data + ".sig"));
}

TEST_F(SignTest, VerifyArgumentStringAndSignaturePath) {
    const std::string a = path("/tmp/a");
    write_file(a, "signed data");
    ASSERT_EQ(sign(a), 0);
    const std::string sig = a + ".sig";

    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(verify("abc"), -1); }),
              "abc\nparameters should be data:sig\n");
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(verify(":::"), -1); }),
              "parameters should be data:sig\n");
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(verify(":" + a + "::" + sig + ":c:"), 0); }),
              a + "\n" + sig + "\n");

    std::string args = a + ":" + sig + ":c";
    ASSERT_EQ(pta_open_session(), 0u);
    capture_stdout([&] { EXPECT_EQ(pta_invoke_att_verify(15, args.data()), 0); });
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta_invoke_att_verify(15, nullptr), -1); });
    pta_close_session();
    EXPECT_EQ(args, a + '\0' + sig + '\0' + "c") << "split in place";
    EXPECT_EQ(out, "parameters should be data:sig\n");

    // A data path of 60 characters: "<path>.sig" is cut to 63.
    std::string data = path("/");
    data += std::string(60 - data.size(), 'f');
    write_file(data, "x");
    ASSERT_EQ(sign(data), 0);
    EXPECT_FALSE(read_file(data + ".si").empty());
    // At 63 characters the cut signature path is the data path itself: refused, data kept.
    data += "sig";
    write_file(data, "x");
    capture_stdout([&] { EXPECT_EQ(sign(data), -1); });
    EXPECT_EQ(read_file(data), "x");
}

TEST_F(SignTest, MissingFilesFailWithoutReachingTheSecureWorld) {
    const std::string a = path("/tmp/a");
    const std::string none = path("/tmp/none");
    write_file(a, "data");
    capture_stdout([&] {
        EXPECT_EQ(sign(none), -1);
        EXPECT_EQ(verify(none + ":" + a), -1);
        EXPECT_EQ(verify(a + ":" + none), -1);
        EXPECT_EQ(dispatch(PTA_DALU_CMD_BLK_VERIFY, 0, none.c_str()), -1);
        EXPECT_EQ(dispatch(PTA_DALU_CMD_BLK_VERIFY, 0, nullptr), -1);
    });
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(SignTest, BlockVerifyAcceptsWellFormedBlocksOnly) {
    Bytes blk = new_block(256);
    ASSERT_EQ(set(blk, "fw_img", bytes_of("payload")), 0);
    const std::string file = path("/tmp/block.bin");
    write_file(file, std::string(blk.begin(), blk.end()));
    EXPECT_EQ(dispatch(PTA_DALU_CMD_BLK_VERIFY, 0, file.c_str()), 0);
    EXPECT_EQ(journal().at(0).param_types, 0x000Cu);
    EXPECT_EQ(journal().at(0).params[0].size, 256u);

    blk[40] ^= 1; // the CRC no longer holds
    write_file(file, std::string(blk.begin(), blk.end()));
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(static_cast<uint32_t>(dispatch(PTA_DALU_CMD_BLK_VERIFY, 0, file.c_str())),
                  TEEC_ERROR_BAD_FORMAT);
    });
    EXPECT_TRUE(is_error(out, "pta_invoke_blk_verify",
                         "TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4"));
}

} // namespace
