// karstctl run as a process: conventions (help, version, exit statuses) and the families over
// the U-Boot environment, inventory, secure registers, attestation and certificates.
#include "karstctl/run_tool.hpp"
#include "support/test_env.hpp"

namespace karst::test {
namespace {

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}
bool starts(const std::string &text, const std::string &prefix) {
    return text.rfind(prefix, 0) == 0;
}

class KarstctlTest : public KarstTest {
  protected:
    ToolRun run(const std::vector<std::string> &args) { return run_karstctl(root(), args); }
};

TEST_F(KarstctlTest, HelpOnEveryLevelVersionAndUsageErrors) {
    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{"--help"},
                                               {"env", "--help"},
                                               {"env", "get", "--help"},
                                               {"inventory", "import", "--help"},
                                               {"memreg", "--help"},
                                               {"attest", "dump", "--help"},
                                               {"cert", "get", "--help"}}) {
        const ToolRun r = run(args);
        EXPECT_EQ(r.status, 0) << args.front();
        EXPECT_TRUE(has(r.out, "Examples:")) << args.front();
    }
    const ToolRun version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "karstctl 1.0.0\n");

    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {}, {"nonsense"}, {"env"}, {"memreg", "1f0", "65"}, {"cert", "get", "3", "-o", "x"}}) {
        const ToolRun r = run(args);
        EXPECT_GE(r.status, 100) << r.err;
        EXPECT_LE(r.status, 127);
        EXPECT_FALSE(r.err.empty());
    }
}

TEST_F(KarstctlTest, EnvironmentSetGetClearAndOutputFile) {
    EXPECT_EQ(run({"env", "set", "bootdelay", "7"}).status, 0);
    const ToolRun get = run({"env", "get", "bootdelay"});
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "7\n");
    EXPECT_EQ(run({"env", "get", "bootcmd", "-o", path("/bootcmd.txt")}).status, 0);
    EXPECT_EQ(read_file(path("/bootcmd.txt")), "bootm 20080000");

    EXPECT_EQ(run({"env", "set", "bootdelay"}).status, 0);
    const ToolRun missing = run({"env", "get", "bootdelay"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(starts(missing.err, "karstctl: pta20_ubootenv_get failed"));

    const ToolRun unwritable = run({"env", "get", "bootcmd", "-o", path("/no/such/dir/x")});
    EXPECT_EQ(unwritable.status, 2);
    EXPECT_TRUE(has(unwritable.err, "cannot write"));
}

TEST_F(KarstctlTest, InventoryCorrectsRevAndImportsAFile) {
    EXPECT_EQ(run({"inventory", "set", "BIOS_VERSION", "Rev 1.2a"}).status, 0);
    EXPECT_EQ(run({"inventory", "set", "BIOS_VERSION", "Rev 1.2a"}).status, 0);
    const ToolRun get = run({"inventory", "get", "BIOS_VERSION"});
    EXPECT_EQ(get.status, 0);
    EXPECT_EQ(get.out, "'Rev' is detected, convert it to 'Ver'\nVer 1.2a\n");

    write_file(path("/legacy.txt"), "CPLD_VERSION=0x0C\n");
    EXPECT_EQ(run({"inventory", "import", path("/legacy.txt")}).status, 0);
    EXPECT_EQ(run({"inventory", "get", "CPLD_VERSION"}).out, "0x0C\n");
    EXPECT_EQ(run({"inventory", "import", path("/none.txt")}).status, 1);
}

TEST_F(KarstctlTest, SecureRegistersArePrintedByTheLibrary) {
    const ToolRun r = run({"memreg", "1f0", "2"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Read secure info from register addr:[000001f0] --> value:[5ec0dff0]\n"
                     "Read secure info from register addr:[000001f4] --> value:[5ec0dff4]\n");
    EXPECT_EQ(run({"memreg", "1f1"}).status, 1);
}

TEST_F(KarstctlTest, AttestationFamily) {
    const ToolRun dump = run({"attest", "dump", "nonce-1", "-o", path("/att.bin")});
    ASSERT_EQ(dump.status, 0) << dump.out << dump.err;
    EXPECT_EQ(read_file(path("/att.bin")).size(), 66560u);
    EXPECT_EQ(run({"attest", "dump", "bad nonce"}).status, 1);

    EXPECT_EQ(run({"attest", "blk-get", "1", "7", "device", "-o", path("/blk.bin")}).status, 0);
    EXPECT_TRUE(starts(read_file(path("/blk.bin")), "KARST-BLOCK v1\ntype=1\nvalue=7\n"));
    EXPECT_EQ(run({"attest", "blk-get", "1", "7", "missing"}).status, 1);

    EXPECT_EQ(run({"attest", "prov-query", "1"}).out, "yes\n");
    const ToolRun no = run({"attest", "prov-query", "3"});
    EXPECT_EQ(no.status, 1);
    EXPECT_EQ(no.out, "no\n");
    EXPECT_EQ(run({"attest", "ra-refresh", path("/none.tgz")}).status, 1);
}

TEST_F(KarstctlTest, CertificatesByNameAndNumber) {
    EXPECT_EQ(run({"cert", "get", "root", "-o", path("/root.der")}).status, 0);
    EXPECT_EQ(run({"cert", "get", "4", "-o", path("/four.der")}).status, 0);
    const std::string root_cert = read_file(path("/root.der"));
    ASSERT_FALSE(root_cert.empty());
    EXPECT_EQ(root_cert[0], '\x30');
    EXPECT_EQ(root_cert, read_file(path("/four.der")));
}

} // namespace
} // namespace karst::test
