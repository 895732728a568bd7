// The remote attestation round trip: replacing the RA certificate leaves in /nv1 an archive
// whose RA data the secure world accepts again, which is what an RA refresh reads.
#include "core/shell.hpp"
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include <sys/stat.h>

using namespace karst::test;

namespace {

class RaRoundTripTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
        mkdir(path("/tmp/attestation").c_str(), 0777);
        write_file(path("/tmp/attestation/ra_uid"), "uid:0001"
                                                    "\x11\x22\x33\x44\x55\x66\x77"
                                                    "tail");
    }
};

TEST_F(RaRoundTripTest, ReplacementArchivesRaDataThatARefreshHandsBack) {
    ASSERT_EQ(pta_open_session(), 0u);
    const int rc = pta_invoke_replace_ra_crt(PTA_DALU_CMD_REPLACE_RA_CRT, 1, nullptr, 0,
                                             certificates().leaf_path.c_str(), nullptr, 0);
    pta_close_session();
    ASSERT_EQ(rc, 0);

    const std::string unpacked = path("/unpacked");
    ASSERT_EQ(mkdir(unpacked.c_str(), 0777), 0);
    ASSERT_EQ(sh("tar zxf " + karst::shell::quote(path("/nv1/ra_data.tgz")) + " -C " +
                 karst::shell::quote(unpacked)),
              0);
    const std::string data = read_file(unpacked + "/ra_data.bin");
    ASSERT_EQ(data.size(), 66560u);
    EXPECT_EQ(data, read_file(path("/tmp/attestation/ra_data.bin")));
    EXPECT_NE(data.find("tid=3111223344556677\n"), std::string::npos) << "bytes 7 to 14 of ra_uid";

    // The refresh must take the RA data from the archive in /nv1, not from a copy left behind.
    const std::string extracted = path("/tmp/attestation/ra_data.bin");
    ASSERT_EQ(unlink(extracted.c_str()), 0);
    EXPECT_EQ(pta20_ra_refresh(nullptr, 0), 0);

    // RA data changed after it was issued is refused.
    std::string changed = data;
    changed[100] ^= 1;
    write_file(unpacked + "/ra_data.bin", changed);
    ASSERT_EQ(sh("cd " + karst::shell::quote(unpacked) + " && tar zcf " +
                 karst::shell::quote(path("/nv1/ra_data.tgz")) + " ra_data.bin"),
              0);
    ASSERT_EQ(unlink(extracted.c_str()), 0);
    EXPECT_EQ(pta20_ra_refresh(nullptr, 0), static_cast<int>(0xFFFF6131));
}

} // namespace
