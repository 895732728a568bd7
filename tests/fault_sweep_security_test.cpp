// Every acquisition of the attestation, certificate, signing and OTP calls, failed in turn.
#include "attestation/att_support.hpp"
#include "support/fault_sweep.hpp"
#include "support/openssl_tools.hpp"
#include "support/sweep_session.hpp"

#include <cstring>

using namespace karst::test;

namespace {

// What routines that pass the client's code on return when registration or the invoke fails.
constexpr int REGISTRATION_FAILED = static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY);
constexpr int INVOKE_FAILED = static_cast<int>(TEEC_ERROR_COMMUNICATION);
const std::vector<int> CLIENT_FAILURES = {-1, REGISTRATION_FAILED, INVOKE_FAILED};
// The RA replacement's copy of the answer is written without a check of its result, and a
// ra_uid that cannot be read only leaves RA_TID out.
const std::vector<int> RA_REPLACEMENT = {-1, 0, REGISTRATION_FAILED, INVOKE_FAILED};
// Certificate authentication: 1 for any failure of the secure world's step.
const std::vector<int> AUTHENTICATION = {-1, 1};

class SecuritySweepTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }
};

TEST_F(SecuritySweepTest, Attestation) {
    char where[512];
    uint8_t buf[8192];
    uint8_t status[16];
    uint32_t size = 0;
    Bytes ra(66560);
    const Bytes cert = to_bytes("ra certificate");
    ASSERT_EQ(karst_emu_ra_issue(cert.data(), cert.size(), ra.data(), ra.size()), ra.size());
    make_tgz(path("/nv1/ra_data.tgz"), {{"ra_data.bin", ra}});
    // Evidence as a board keeps it: SPDM certificate chains, measurements of a device, the
    // root CAs.
    const std::string spdm = path("/tmp/spdm/aoc/boot_run");
    make_dirs(spdm + "/spdm_saved_cert_chains");
    make_dirs(spdm + "/spdm_saved_measurements_bins/gpu0");
    write_bytes(spdm + "/spdm_saved_cert_chains/gpu0.der", pattern(600));
    write_bytes(spdm + "/spdm_saved_measurements_bins/gpu0/boot.bin", pattern(300));
    write_bytes(path("/etc/defaults/spdm_dalu_rootCA.der"), pattern(500, 1));
    write_bytes(path("/etc/defaults/spdm_nv_rootCA.der"), pattern(500, 2));
    sweep_each({
        // Evidence that cannot be read is reported and left out; the dump goes on.
        {.name = "pta20_att_dump",
         .call = [&] { return pta20_att_dump("abc123", where, sizeof where); },
         .failure_results = {-1, 0}},
        {.name = "pta_invoke_att_dump",
         .call =
             [&] { return in_session([&] { return pta_invoke_att_dump(12, "abc", nullptr, 0); }); },
         .failure_results = {-1, 0, REGISTRATION_FAILED, INVOKE_FAILED}},
        {.name = "_pta_invoke_att_dump",
         .call =
             [&] {
                 return in_session(
                     [&] { return _pta_invoke_att_dump(12, "abc", nullptr, 0, nullptr, 0); });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_blk_get",
         .call = [&] { return in_session([&] { return pta_invoke_blk_get(16, 1, 2, "name"); }); },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta20_get_cert",
         .call =
             [&] {
                 size = sizeof buf;
                 return pta20_get_cert(4, buf, &size);
             }},
        {.name = "pta_invoke_dalu_get_certificate",
         .call =
             [&] {
                 size = sizeof buf;
                 return in_session(
                     [&] { return pta_invoke_dalu_get_certificate(34, 4, buf, &size); });
             },
         .failure_results = {-1, REGISTRATION_FAILED, static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND)}},
        {.name = "pta20_prov_query", .call = [] { return pta20_prov_query(0); }},
        {.name = "pta_invoke_prov_query",
         .call =
             [] { return in_session([] { return pta_invoke_prov_query(22, 0, nullptr, 0); }); }},
        {.name = "_pta_invoke_prov_query",
         .call =
             [&] {
                 return in_session(
                     [&] { return _pta_invoke_prov_query(22, 0, status, sizeof status); });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta20_ra_refresh", .call = [] { return pta20_ra_refresh(nullptr, 0); }},
        {.name = "pta_invoke_ra_refresh",
         .call = [] { return in_session([] { return pta_invoke_ra_refresh(26, nullptr, 0); }); },
         .failure_results = CLIENT_FAILURES},
    });
}

TEST_F(SecuritySweepTest, CertificatesAndSigning) {
    const CertificateSet &c = certificates();
    const auto leaf_len = static_cast<uint32_t>(c.leaf.size());
    const auto ca_len = static_cast<uint32_t>(c.ca.size());
    const std::string csr = path("/tmp/device.csr");
    const std::string subject = path("/tmp/subject.txt");
    const std::string data = path("/tmp/measurements.bin");
    const std::string block = path("/tmp/block.bin");
    write_file(subject, "CN=device");
    make_dirs(path("/tmp/attestation"));
    write_file(path("/tmp/attestation/ra_uid"), std::string(20, '\x07'));
    write_file(data, "boot measurements");
    Bytes blk = new_block(4096);
    ASSERT_EQ(set(blk, "key", to_bytes("value")), 0);
    write_bytes(block, blk);
    char args[512];
    const uintptr_t words[] = {reinterpret_cast<uintptr_t>(c.leaf.data()), leaf_len,
                               reinterpret_cast<uintptr_t>(c.ca.data()), ca_len};
    sweep_each({
        {.name = "pta20_crt_replace",
         .call = [&] { return pta20_crt_replace(5, c.leaf_path.c_str(), 0); }},
        {.name = "pta20_crt_replace_import",
         .call = [&] { return pta20_crt_replace_import(nullptr, c.leaf.data(), leaf_len, 1); }},
        {.name = "pta20_ra_crt_replace_import",
         .call = [&] { return pta20_ra_crt_replace_import(nullptr, c.leaf.data(), leaf_len, 0); },
         .failure_results = RA_REPLACEMENT},
        {.name = "pta_invoke_replace_crt",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_replace_crt(11, 1, nullptr, 0, c.leaf_path.c_str(), nullptr,
                                                   0);
                 });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_replace_ra_crt",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_replace_ra_crt(27, 1, nullptr, 0, c.leaf_path.c_str(),
                                                      nullptr, 0);
                 });
             },
         .failure_results = RA_REPLACEMENT},
        {.name = "pta_invoke_replace_crt_import",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_replace_crt_import("uri", c.leaf.data(), leaf_len, 0);
                 });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_replace_ra_crt_import",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_replace_ra_crt_import("uri", c.leaf.data(), leaf_len, 0);
                 });
             },
         .failure_results = RA_REPLACEMENT},
        {.name = "pta20_gen_csr_import",
         .call = [&] { return pta20_gen_csr_import(csr.c_str(), "CN=device", 9); }},
        {.name = "pta_invoke_gen_csr_import",
         .call =
             [&] {
                 return in_session(
                     [&] { return pta_invoke_gen_csr_import(csr.c_str(), "CN=device", 9); });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_gen_csr file",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_gen_csr(13, csr.c_str(), nullptr, 0, subject.c_str());
                 });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_att_sign",
         .call =
             [&] { return in_session([&] { return pta_invoke_att_sign(14, 0, data.c_str()); }); },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_att_verify",
         .call =
             [&] {
                 std::snprintf(args, sizeof args, "%s:%s.sig", data.c_str(), data.c_str());
                 return in_session([&] { return pta_invoke_att_verify(15, args); });
             },
         .failure_results = CLIENT_FAILURES,
         .prepare =
             [&] {
                 capture_stdout(
                     [&] { in_session([&] { return pta_invoke_att_sign(14, 0, data.c_str()); }); });
             }},
        {.name = "pta20_att_security_validate",
         .call = [] { return pta20_att_security_validate(1); }},
        {.name = "pta_invoke_att_validate",
         .call = [] { return in_session([] { return pta_invoke_att_validate(24, 1); }); },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_blk_verify",
         .call =
             [&] { return in_session([&] { return pta_invoke_blk_verify(17, block.c_str()); }); },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta20_auth_certs",
         .call = [&] { return pta20_auth_certs(words); },
         .failure_results = AUTHENTICATION},
        {.name = "pta_invoke_auth_certs",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_auth_certs(30, c.leaf_path.c_str(), c.ca_path.c_str());
                 });
             },
         .failure_results = AUTHENTICATION},
        {.name = "_pta_invoke_auth_certs",
         .call =
             [&] {
                 return in_session([&] {
                     return _pta_invoke_auth_certs(30, c.leaf.data(), leaf_len, c.ca.data(),
                                                   ca_len);
                 });
             },
         .failure_results = AUTHENTICATION},
    });
}

TEST_F(SecuritySweepTest, Otp) {
    uint8_t key[64];
    char serial[64];
    uint32_t word = 0;
    // Programmed OTP bytes cannot be programmed again: every run programs a fresh byte.
    uint32_t next_offset = 0;
    uint8_t byte = 0x5a;
    const std::string key_file = path("/tmp/key.bin");
    const std::string usr_file = path("/tmp/usr.bin");
    write_file(usr_file, "\x01");
    char offset_text[16];
    auto otp = [&](std::vector<std::string> words) {
        std::vector<char *> argv;
        for (std::string &w : words) {
            argv.push_back(w.data());
        }
        return otp_main(static_cast<int32_t>(argv.size()), argv.data());
    };
    sweep_each({
        {.name = "pta_invoke_otp_get_key",
         .call = [&] { return pta_invoke_otp_get_key(20, 3, key, 32); }},
        {.name = "__pta_invoke_otp_get_key",
         .call =
             [&] { return in_session([&] { return __pta_invoke_otp_get_key(20, 3, key, 32); }); },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta_invoke_otp_prog_usr",
         .call = [&] { return pta_invoke_otp_prog_usr(21, next_offset++, &byte, 1); }},
        {.name = "__pta_invoke_otp_prog_usr",
         .call =
             [&] {
                 return in_session(
                     [&] { return __pta_invoke_otp_prog_usr(21, next_offset++, &byte, 1); });
             },
         .failure_results = CLIENT_FAILURES},
        {.name = "pta20_otp_board_sn_get",
         .call = [&] { return pta20_otp_board_sn_get(&word, serial, sizeof serial); }},
        {.name = "pta_invoke_otp_get_board_sn",
         .call = [&] { return pta_invoke_otp_get_board_sn(23, &word, serial, sizeof serial); }},
        {.name = "_pta_invoke_board_sn_get",
         .call =
             [&] {
                 return in_session(
                     [&] { return _pta_invoke_board_sn_get(23, &word, serial, sizeof serial); });
             },
         .failure_results = CLIENT_FAILURES},
        // The otp program's main reports failures in its messages and always returns 0.
        {.name = "otp_main getkey",
         .call =
             [&] {
                 return otp({"getkey", "3", key_file});
             },
         .failure_results = {0}},
        {.name = "otp_main prog_usr",
         .call =
             [&] {
                 std::snprintf(offset_text, sizeof offset_text, "%x", next_offset++);
                 return otp({"prog_usr", offset_text, usr_file});
             },
         .failure_results = {0}},
        {.name = "otp_main getsn", .call = [&] { return otp({"getsn"}); }, .failure_results = {0}},
    });
}

} // namespace
