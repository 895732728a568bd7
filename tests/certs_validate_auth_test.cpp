// Attestation security validation (command 24) with its result mapping, and certificate
// authentication (command 30) with its three outcomes.
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include <regex>

using namespace karst::test;

namespace {

class ValidateTest : public KarstTest {};
class AuthCertsTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }
};

uintptr_t word(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

TEST_F(ValidateTest, SecureWorldAnswersAreMapped) {
    // Device identity holds; remote attestation only after an RA certificate replacement.
    EXPECT_EQ(pta20_att_security_validate(0x1), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 24u);
    EXPECT_EQ(r.param_types, 0x0001u);
    EXPECT_EQ(r.params[0].a, 1u);

    const std::string out = capture_stdout([] {
        EXPECT_EQ(pta20_att_security_validate(0x2), -40655);
        EXPECT_EQ(pta20_att_security_validate(0x10), -40654);
        EXPECT_EQ(pta20_att_security_validate(0), -1);
    });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:pta_invoke_att_validate:\d+\] TEEC_InvokeCommand failed with code 0xffff3074 origin 0x4\n)"
        R"(\[E:pta_invoke_att_validate:\d+\] TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n)"
        R"(\[E:pta_invoke_att_validate:\d+\] TEEC_InvokeCommand failed with code 0xffff0006 origin 0x4\n)"));

    const auto &cert = certificates().leaf;
    ASSERT_EQ(
        pta20_ra_crt_replace_import(nullptr, cert.data(), static_cast<uint32_t>(cert.size()), 0),
        0);
    EXPECT_EQ(pta20_att_security_validate(0x3), 0);

    // The routine itself returns the TEE code; a session that cannot be opened maps to -1.
    ASSERT_EQ(pta_open_session(), 0u);
    capture_stdout([] {
        EXPECT_EQ(static_cast<uint32_t>(pta_invoke_att_validate(24, 0x10)), 0xFFFF0008u);
        EXPECT_EQ(pta20_att_security_validate(0x1), -1);
    });
    pta_close_session();
}

TEST_F(AuthCertsTest, CertificateIssuedByTheSecondBufferIsAccepted) {
    const auto &c = certificates();
    ASSERT_EQ(pta_open_session(), 0u);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, word(c.leaf_path.c_str()), 0, word(c.ca_path.c_str()));
    EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_AUTH_CERTS, block), 0);
    pta_close_session();
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 30u);
    EXPECT_EQ(r.param_types, 0x00CCu);
    EXPECT_EQ(r.params[0].size, c.leaf.size());
    EXPECT_EQ(r.params[1].size, c.ca.size());

    // In memory, with the issuer second in a chain.
    std::vector<uint8_t> chain = c.stranger;
    chain.insert(chain.end(), c.ca.begin(), c.ca.end());
    const uintptr_t words[4] = {word(c.leaf.data()), c.leaf.size(), word(chain.data()),
                                chain.size()};
    EXPECT_EQ(pta20_auth_certs(words), 0);
}

TEST_F(AuthCertsTest, RefusalIsOneAndLocalFailureMinusOne) {
    const auto &c = certificates();
    const uintptr_t stranger[4] = {word(c.leaf.data()), c.leaf.size(), word(c.stranger.data()),
                                   c.stranger.size()};
    const uintptr_t junk[4] = {word("junk"), 4, word(c.ca.data()), c.ca.size()};
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_auth_certs(stranger), 1);
        EXPECT_EQ(pta20_auth_certs(junk), 1);
    });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_auth_certs:\d+\] TEEC_InvokeCommand failed with code 0xffff3072 origin 0x4\n)"
        R"(\[E:_pta_invoke_auth_certs:\d+\] TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4\n)"));

    const uintptr_t empty[4] = {word(c.leaf.data()), 0, word(c.ca.data()), c.ca.size()};
    const uintptr_t null_buffer[4] = {0, 4, word(c.ca.data()), c.ca.size()};
    const std::string none = path("/tmp/none.der");
    const std::string zero = path("/tmp/zero.der");
    write_file(zero, "");
    out = capture_stdout([&] {
        EXPECT_EQ(pta20_auth_certs(empty), -1);
        EXPECT_EQ(pta20_auth_certs(null_buffer), -1);
        EXPECT_EQ(pta20_auth_certs(nullptr), -1);
        ASSERT_EQ(pta_open_session(), 0u);
        EXPECT_EQ(pta_invoke_auth_certs(30, zero.c_str(), c.ca_path.c_str()), -1);
        EXPECT_EQ(pta_invoke_auth_certs(30, nullptr, c.ca_path.c_str()), -1);
        EXPECT_EQ(pta_invoke_auth_certs(30, c.leaf_path.c_str(), none.c_str()), -1);
        pta_close_session();
    });
    EXPECT_TRUE(matches(out,
                        R"(\[E:readbin:\d+\] Failed to open file:.*/tmp/none.der\n)"
                        R"(\[E:pta_invoke_auth_certs:\d+\] File .*/tmp/none.der not exist\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 2u) << "only the two refusals reached the secure world";

    karst_emu_fail_nth(KARST_EMU_REGISTER, 2, TEEC_ERROR_OUT_OF_MEMORY);
    out = capture_stdout([&] { EXPECT_EQ(pta20_auth_certs(stranger), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_auth_certs:\d+\] TEEC_RegisterSharedMemory failed with code 0xffff000c\n)"));
}

} // namespace
