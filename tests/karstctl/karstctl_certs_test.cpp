// SPDX-License-Identifier: Apache-2.0
// karstctl run as a process: certificates, signatures, validation, the signature table and OTP.
#include "karstctl/run_tool.hpp"
#include "support/test_env.hpp"

#include <regex>
#include <sys/stat.h>

namespace karst::test {
namespace {

class KarstctlCertsTest : public KarstTest {
  protected:
    ToolRun run(const std::vector<std::string> &args) { return run_karstctl(root(), args); }
};

TEST_F(KarstctlCertsTest, GetReplaceAuthenticateAndRequest) {
    // The summary names the file as given: a JSON string with its quote and line end escaped.
    const std::string odd = path("/d\"e\n.der");
    const ToolRun device = run({"cert", "get", "device", "-o", odd, "--json"});
    ASSERT_EQ(device.status, 0) << device.err;
    EXPECT_TRUE(
        std::regex_match(device.out, std::regex("\\{\"cert\":\"device\",\"index\":0,\"file\":\".*/"
                                                "d\\\\\"e\\\\n\\.der\",\"size\":[0-9]+,\"subject\":"
                                                "\"CN=karst-device\"\\}\n")))
        << device.out;
    const ToolRun root_cert = run({"cert", "get", "4", "-o", "-"});
    EXPECT_EQ(root_cert.out.substr(0, 1), "\x30");
    write_file(path("/root.der"), root_cert.out);
    ASSERT_EQ(run({"cert", "get", "third", "-o", path("/third.der")}).status, 0);

    EXPECT_EQ(run({"cert", "auth", odd, path("/third.der")}).out, "accepted\n");
    const ToolRun refused = run({"cert", "auth", odd, path("/root.der")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.err.find("karstctl: the secure world refused the certificate: "
                                 "TEEC_InvokeCommand: 0xffff3072 from TEEC_ORIGIN_TRUSTED_APP") !=
                std::string::npos)
        << refused.err;

    EXPECT_EQ(run({"attest", "prov-query", "2"}).status, 1);
    EXPECT_EQ(run({"cert", "replace", "1", odd}).status, 0);
    EXPECT_EQ(run({"attest", "prov-query", "2"}).status, 0);
    EXPECT_EQ(run({"cert", "replace-ra", "1", odd}).status, 0);
    EXPECT_EQ(run({"attest", "ra-refresh"}).status, 0);

    const ToolRun csr = run({"cert", "csr", "CN=bmc-01,O=Example", "-o", "-"});
    ASSERT_EQ(csr.status, 0) << csr.err;
    EXPECT_EQ(csr.out.substr(0, 1), "\x30");
    EXPECT_TRUE(csr.out.find("bmc-01") != std::string::npos);
}

TEST_F(KarstctlCertsTest, SignVerifyValidateAndTheSignatureTable) {
    write_file(path("/data.txt"), "statement\n");
    const ToolRun sign = run({"sign", path("/data.txt"), "-o", path("/copy.sig")});
    ASSERT_EQ(sign.status, 0) << sign.err;
    EXPECT_EQ(sign.out, path("/data.txt.sig") + "\n");
    EXPECT_EQ(read_file(path("/copy.sig")), read_file(path("/data.txt.sig")));
    EXPECT_EQ(run({"verify", path("/data.txt"), path("/data.txt.sig")}).out, "valid\n");
    write_file(path("/data.txt"), "statement!\n");
    const ToolRun bad = run({"verify", path("/data.txt"), path("/data.txt.sig")});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "invalid\n");
    write_file(path("/" + std::string(60, 'x')), "x");
    EXPECT_EQ(run({"sign", path("/" + std::string(60, 'x'))}).status, 2);
    EXPECT_EQ(run({"validate", "0x1"}).out, "valid\n");

    std::string table(SIGTBL_MAX_BYTES, '\x5a');
    table[0] = '\x53';
    table[1] = '\x00';
    write_file(path("/signed.bin"), table);
    EXPECT_EQ(run({"sigtbl", path("/signed.bin")}).out,
              "block 0x5a5a5a5a 0x034b4b40\nsignature 0x5a5a5a5a 0x5a5a5a5a\n");
    EXPECT_EQ(run({"sigtbl", path("/signed.bin"), "--json"}).out,
              "{\"blocks\":[{\"address\":1515870810,\"size\":55266112}],\"signatures\":[{"
              "\"offset\":1515870810,\"boot_id_offset\":1515870810}]}\n");
}

TEST_F(KarstctlCertsTest, OtpKeysUserAreaAndSerial) {
    const ToolRun key = run({"otp", "getkey", "0x03"});
    EXPECT_EQ(key.status, 0);
    EXPECT_TRUE(std::regex_match(key.out, std::regex("[0-9a-f]{64}\n"))) << key.out;
    EXPECT_EQ(run({"otp", "getkey", "3", "-o", path("/key.bin")}).status, 0);
    EXPECT_EQ(read_file(path("/key.bin")).size(), 32u);
    struct stat st {};
    ASSERT_EQ(::stat(path("/key.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "key files are readable by their owner only";

    EXPECT_EQ(run({"otp", "prog-usr", "1022", "--hex", "5aa5"}).status, 0);
    uint8_t area[2] = {0};
    ASSERT_EQ(karst_emu_otp_user_read(1022, area, 2), 0);
    EXPECT_EQ(area[0], 0x5a);
    EXPECT_EQ(area[1], 0xa5);
    const ToolRun again = run({"otp", "prog-usr", "1022", "--hex", "5aa5"});
    EXPECT_EQ(again.status, 1);
    EXPECT_TRUE(again.err.find("TEEC_ERROR_ACCESS_CONFLICT") != std::string::npos) << again.err;

    EXPECT_TRUE(std::regex_match(run({"otp", "getsn"}).out, std::regex("KB[0-9]{10}\n")));
}

} // namespace
} // namespace karst::test
