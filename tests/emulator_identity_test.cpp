// The emulated device's identity: a stable key pair, signatures that verify only for the data
// signed, a CSR that OpenSSL accepts, and a factory chain of real DER certificates with both
// long length forms.
#include "device_identity.hpp"
#include "karst_emu.h"
#include "ra_data.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace id = karst::emu::identity;

namespace {

class IdentityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/karst-identity-XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        root_ = templ;
        setenv("KARST_ROOT", root_.c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    // Runs openssl on a DER file; true when it exits 0.
    bool openssl_accepts(const std::vector<uint8_t> &der, const std::string &what) {
        const std::string file = root_ + "/object.der";
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char *>(der.data()),
                   static_cast<std::streamsize>(der.size()));
        const std::string cmd =
            "openssl " + what + " -inform DER -in " + file + " -noout >/dev/null 2>&1";
        return std::system(cmd.c_str()) == 0;
    }

    std::string root_;
};

TEST_F(IdentityTest, SignaturesVerifyOnlyForTheDataSigned) {
    const std::vector<uint8_t> data = {'m', 'e', 'a', 's', 'u', 'r', 'e'};
    const auto sig = id::sign(data);
    ASSERT_FALSE(sig.empty());
    EXPECT_TRUE(id::verify(data, sig));
    auto changed = data;
    changed[3] ^= 1;
    EXPECT_FALSE(id::verify(changed, sig));
    EXPECT_EQ(id::device_public_key_pem(), id::device_public_key_pem()) << "the key is kept";
}

TEST_F(IdentityTest, CsrIsAcceptedByOpenssl) {
    const auto csr = id::make_csr("CN=bmc-0042,O=karst");
    ASSERT_FALSE(csr.empty());
    EXPECT_TRUE(openssl_accepts(csr, "req -verify"));
    EXPECT_TRUE(openssl_accepts(id::make_csr("no equals sign"), "req -verify"));
}

TEST_F(IdentityTest, FactoryChainIsRealDerWithBothLongLengthForms) {
    const auto certs = id::chain_certificates();
    ASSERT_EQ(certs.size(), 4u);
    bool one_byte_form = false, two_byte_form = false;
    for (const auto &c : certs) {
        ASSERT_GE(c.size(), 4u);
        EXPECT_EQ(c[0], 0x30);
        one_byte_form |= c[1] == 0x81;
        two_byte_form |= c[1] == 0x82;
        EXPECT_TRUE(openssl_accepts(c, "x509"));
    }
    EXPECT_TRUE(one_byte_form);
    EXPECT_TRUE(two_byte_form);
    EXPECT_EQ(id::chain_certificates(), certs) << "the chain is kept";
}

} // namespace

namespace {

TEST_F(IdentityTest, IssuedRaDataIsAcceptedAndAnyChangeRejected) {
    const std::vector<uint8_t> cert = {0x30, 0x03, 1, 2, 3};
    const std::vector<uint8_t> tid = {1, 2, 3, 4, 5, 6, 7, 8};
    auto result = karst::emu::ra::issue(cert, tid);
    ASSERT_EQ(result.size(), karst::emu::ra::RESULT_SIZE);
    const std::span<const uint8_t> all(result);
    const auto data = all.first(karst::emu::ra::DATA_SIZE);
    const auto sig = all.last(karst::emu::ra::SIGNATURE_SIZE);
    EXPECT_EQ(karst::emu::ra::check(data, sig), TEEC_SUCCESS);
    result[100] ^= 1;
    EXPECT_EQ(karst::emu::ra::check(data, sig), karst::emu::ra::RA_REJECTED);
    result[100] ^= 1;
    EXPECT_EQ(karst::emu::ra::check(data.first(1000), sig), karst::emu::ra::RA_REJECTED);
    EXPECT_EQ(karst::emu::ra::check(data, all.subspan(5, 1024)), karst::emu::ra::RA_REJECTED);
}

} // namespace
