// karstctl run as a process: certificate changes, signatures, validation and OTP.
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

TEST_F(KarstctlCertsTest, ReplaceAuthenticateAndRequest) {
    ASSERT_EQ(run({"cert", "get", "device", "-o", path("/device.der")}).status, 0);
    ASSERT_EQ(run({"cert", "get", "third", "-o", path("/third.der")}).status, 0);
    ASSERT_EQ(run({"cert", "get", "root", "-o", path("/root.der")}).status, 0);

    EXPECT_EQ(run({"cert", "auth", path("/device.der"), path("/third.der")}).out, "accepted\n");
    const ToolRun refused = run({"cert", "auth", path("/device.der"), path("/root.der")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "karstctl: the secure world refused the certificate\n");

    EXPECT_EQ(run({"attest", "prov-query", "2"}).status, 1);
    EXPECT_EQ(run({"cert", "replace", "1", path("/device.der")}).status, 0);
    EXPECT_EQ(run({"attest", "prov-query", "2"}).status, 0);
    EXPECT_EQ(run({"cert", "replace", "6", path("/device.der")}).status, 105);

    EXPECT_EQ(run({"cert", "replace-ra", "1", path("/device.der")}).status, 0);
    EXPECT_EQ(run({"attest", "ra-refresh"}).status, 0);

    EXPECT_EQ(run({"cert", "csr", "CN=bmc-01,O=Example", "-o", path("/bmc.csr")}).status, 0);
    const std::string csr = read_file(path("/bmc.csr"));
    ASSERT_FALSE(csr.empty());
    EXPECT_EQ(csr[0], '\x30');
    EXPECT_NE(csr.find("bmc-01"), std::string::npos);
}

TEST_F(KarstctlCertsTest, SignVerifyAndValidate) {
    write_file(path("/data.txt"), "statement\n");
    const ToolRun sign = run({"sign", path("/data.txt"), "-o", path("/copy.sig")});
    ASSERT_EQ(sign.status, 0) << sign.out << sign.err;
    EXPECT_EQ(sign.out, path("/data.txt.sig") + "\n");
    EXPECT_EQ(read_file(path("/copy.sig")), read_file(path("/data.txt.sig")));

    const ToolRun good = run({"verify", path("/data.txt"), path("/data.txt.sig")});
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.out.substr(good.out.size() - 6), "valid\n"); // after the library's lines
    write_file(path("/data.txt"), "statement!\n");
    const ToolRun bad = run({"verify", path("/data.txt"), path("/data.txt.sig")});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out.substr(bad.out.size() - 8), "invalid\n");

    EXPECT_EQ(run({"sign", path("/" + std::string(60, 'x'))}).status, 105); // no such file
    write_file(path("/" + std::string(60, 'x')), "x");
    EXPECT_EQ(run({"sign", path("/" + std::string(60, 'x'))}).status, 2);

    EXPECT_EQ(run({"validate", "0x1"}).out, "valid\n");
    const ToolRun unknown = run({"validate", "0x4"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "karstctl: validation: no such check\n");
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
    EXPECT_EQ(run({"otp", "getkey", "0x40"}).status, 1);

    EXPECT_EQ(run({"otp", "prog-usr", "0x10", "--hex", "5aa5"}).status, 0);
    uint8_t area[2] = {0};
    ASSERT_EQ(karst_emu_otp_user_read(0x10, area, 2), 0);
    EXPECT_EQ(area[0], 0x5a);
    EXPECT_EQ(area[1], 0xa5);
    EXPECT_EQ(run({"otp", "prog-usr", "0x10", "--hex", "5aa5"}).status, 1);
    EXPECT_EQ(run({"otp", "prog-usr", "0x20"}).status, 106);
    EXPECT_EQ(run({"otp", "prog-usr", "0x20", "--hex", "5g"}).status, 105);

    const ToolRun serial = run({"otp", "getsn"});
    EXPECT_EQ(serial.status, 0);
    EXPECT_TRUE(std::regex_match(serial.out, std::regex("KB[0-9]{10}\n"))) << serial.out;
}

} // namespace
} // namespace karst::test
