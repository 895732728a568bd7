// SPDX-License-Identifier: Apache-2.0
// Every acquisition of every exported call, failed in turn: the file helpers, the key=value files,
// the U-Boot environment, the CPLD registers, the inventory, the secure registers, the dispatcher,
// the images, the attestation, the certificates and signing, and the OTP.
#include "attestation/att_support.hpp"
#include "support/fault_sweep.hpp"
#include "support/image_files.hpp"
#include "support/openssl_tools.hpp"

#include <atomic>
#include <cstring>
#include <iterator>
#include <sstream>
#include <thread>

using namespace karst::test;

namespace {

// What routines that pass the client's code on return when registration or the invoke fails.
constexpr int REGISTRATION_FAILED = static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY);
constexpr int INVOKE_FAILED = static_cast<int>(TEEC_ERROR_COMMUNICATION);
const std::vector<int> CLIENT = {-1, REGISTRATION_FAILED, INVOKE_FAILED};
// Calls whose failures in a cache, an evidence file or a copy are reported and let them go on.
const std::vector<int> GOES_ON = {-1, 0};
// Both: the RA replacement's copy of the answer is written without a check of its result, and a
// ra_uid that cannot be read only leaves RA_TID out; evidence that cannot be read is left out.
const std::vector<int> CLIENT_OR_GOES_ON = {-1, 0, REGISTRATION_FAILED, INVOKE_FAILED};
// Certificate authentication: 1 for any failure of the secure world's step.
const std::vector<int> AUTHENTICATION = {-1, 1};

// A routine that passes the client's code on, called in a session of its own.
#define SWEEP_CLIENT(routine, ...) SWEEP_IN_SESSION(routine, __VA_ARGS__).failing(CLIENT)

class FaultSweepTest : public KarstTest {};

// Routines that take their text as char *: a fresh copy for each call.
char *text(const char *s) {
    static char buf[64];
    return std::strcpy(buf, s);
}

int readbin_whole(const char *file) {
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    const int rc = readbin(file, &buf, &size);
    std::free(buf);
    return rc;
}

int pta_invoke_cmd_text(uint32_t number, const char *word) {
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text(word)), 0, 0);
    return pta_invoke_cmd(number, block);
}

TEST_F(FaultSweepTest, FilesEnvironmentCpldInventoryAndRegisters) {
    const std::string file = path("/tmp/sweep.bin"), config = path("/tmp/sweep.conf");
    const std::string legacy = path("/tmp/fw_inventory.txt");
    write_file(file, std::string(3000, 'x'));
    write_file(legacy, "BIOS_VER=1.2\nCPLD_VER=3\n");
    const auto fresh_config = [&] { write_file(config, "first=1\nsecond=2\nthird=3\n"); };
    fresh_config();
    char value[64];
    uint32_t word = 0;
    sweep_each({
        SWEEP(writebin, file.c_str(), "abc", 3),
        SWEEP(readbin_whole, file.c_str()),
        SWEEP(read_config, config.c_str(), "second", value, 16),
        SWEEP(write_config, config.c_str(), "first", "changed", 8).prepared(fresh_config),
        // A value that cannot be read or written is reported and the import goes on.
        SWEEP(pta20_import_fw_invt_tavo, legacy.c_str())
            .failing(GOES_ON)
            .noise(R"(.*TEEC_InvokeCommand failed with code 0xffff0008 .*)"),
        SWEEP(pta20_ubootenv_get, "bootdelay", value, sizeof value),
        SWEEP(pta20_ubootenv_set, "bootdelay", "3"),
        SWEEP_IN_SESSION(pta_invoke_ubootenv_get, 4, text("bootdelay")),
        SWEEP_IN_SESSION(pta_invoke_ubootenv_set, 5, text("bootdelay=4")),
        SWEEP_IN_SESSION(pta_invoke_cpld_regr, 6, text("0x00")),
        SWEEP_IN_SESSION(pta_invoke_cpld_regw, 7, text("0x10=0x5")),
        // The inventory file is a cache, and the secure world's refusal of the "Rev" correction
        // does not fail the read.
        SWEEP(pta20_inventory_set, "BIOS_VER", "1.0", 4).failing(GOES_ON),
        SWEEP(pta20_inventory_get, "BIOS_VER", value, sizeof value).failing(GOES_ON).prepared([] {
            capture_stdout([] { pta20_inventory_set("BIOS_VER", "Rev 1.0", 8); });
        }),
        SWEEP_IN_SESSION(pta_invoke_inventory_set, 9, text("CPLD_VER=3")),
        SWEEP_IN_SESSION(pta_invoke_inventory_get, 8, text("CPLD_VER")),
        SWEEP(pta20_memreg_get, "1f0", 3, &word),
        SWEEP_IN_SESSION(pta_invoke_memreg_get, 18, "1f0", 2),
        SWEEP_IN_SESSION(pta_invoke_cmd_text, PTA_DALU_CMD_UBOOTENV_GET, "bootdelay"),
    });
}

TEST_F(FaultSweepTest, Images) {
    karst_emu_program_rate(0);
    const std::string image = image_bytes(0x1000), file = path("/tmp/image.bin");
    for (const char *staging : {"/nv1/cpld_staging.bin", "/nv1/bios_staging.bin"}) {
        write_file(path(staging), image);
    }
    write_file(file, image);
    void *buf = const_cast<char *>(image.data()), *file_arg = const_cast<char *>(file.c_str());
    const auto n = static_cast<uint32_t>(image.size());
    const char *progress = "written: 3, total: 4, 75%\n";
    sweep_each({
        SWEEP(pta20_img_auth, 0x0201, 0, nullptr, 0),
        SWEEP(pta20_img_upload, 0x0201, IMG_SRC_BUFFER, buf, n).failing(CLIENT),
        sweep_call("pta20_img_upload file",
                   [&] { return pta20_img_upload(0x0201, IMG_SRC_FILE, file_arg, 0); })
            .failing(CLIENT),
        sweep_call("pta20_img_upload extended",
                   [&] { return pta20_img_upload(0x0101, IMG_SRC_EXTENDED, nullptr, 0); })
            .failing(CLIENT),
        SWEEP(pta20_img_dump, 0x0202, 0, nullptr, 0x3000).failing(CLIENT),
        SWEEP(pta20_img_delete, 0x0201, 0),
        SWEEP(pta20_img_update, 0x0201, IMG_FLAG_BACKUP | IMG_FLAG_EVIDENCE, nullptr, 0)
            .failing(CLIENT),
        SWEEP_IN_SESSION(pta_invoke_fw_auth, 0, 0x0201, IMG_SRC_BUFFER, buf, n),
        SWEEP_CLIENT(pta_invoke_fw_upload, 1, 0x0201, IMG_SRC_BUFFER, buf, n),
        SWEEP_CLIENT(pta_invoke_fw_update, 2, 0x0201, IMG_SRC_BUFFER, buf, n),
        SWEEP_CLIENT(pta_invoke_fw_dump, 3, 0x0202, 0, nullptr, 0x3000),
        SWEEP_IN_SESSION(pta_invoke_fw_delete, 10, 0x0201, 0, nullptr),
        // The key block is made, then its format byte set, so its first store finds the CRC
        // stale (and stores a fresh one): by design.
        SWEEP_IN_SESSION(pta_invoke_fw_auth_dblk, 31, 0x0101, IMG_SRC_BUFFER, buf, n)
            .noise(R"(\[E:blk_getenv:\d+\] Data Block bad CRC)"),
        SWEEP(pta20_img_updmsg, IMG_ID(IMG_TYPE_BIOS, 0), 0).succeeding(75).prepared([&] {
            write_file(path("/tmp/fw-update-BIOS.out"), progress);
        }),
        SWEEP(pta20_fpga_ready),
        SWEEP_IN_SESSION(pta_invoke_fpga_ready, 25).failing({-1, INVOKE_FAILED}),
        SWEEP(pta20_bios_set4Byte, 1),
    });
}

// Starts an update of the CPLD and polls it to its end, as a caller does: 0 when it succeeds.
int pta20_img_update_async_to_the_end() {
    img_update_ctx ctx{};
    ctx.img = IMG_ID(IMG_TYPE_CPLD, 1);
    if (pta20_img_update_async(&ctx) != 0) {
        return -1;
    }
    // The update thread writes state: read it as the library does, atomically.
    const std::atomic_ref<int32_t> state(ctx.state);
    while (state.load() == IMG_UPD_QUEUED || state.load() == IMG_UPD_RUNNING) {
        pta20_img_updprogress(&ctx);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return state.load() == IMG_UPD_IDLE ? 0 : -1;
}

// The asynchronous update: a failure in the starting call or in the update thread ends with the
// context failed (or never started) and everything released. A poll that cannot read the
// progress file shows no progress; the update goes on.
TEST_F(FaultSweepTest, UpdateThread) {
    karst_emu_program_rate(0);
    write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x1000));
    EXPECT_GT(sweep_failures(SWEEP(pta20_img_update_async_to_the_end).failing(GOES_ON)), 1u);
}

TEST_F(FaultSweepTest, Attestation) {
    Bytes ra(66560);
    const Bytes cert = to_bytes("ra certificate");
    ASSERT_EQ(karst_emu_ra_issue(cert.data(), cert.size(), ra.data(), ra.size()), ra.size());
    make_tgz(path("/nv1/ra_data.tgz"), {{"ra_data.bin", ra}});
    // Evidence as a board keeps it: SPDM certificate chains, measurements of a device, the root
    // CAs.
    const std::string spdm = path("/tmp/spdm/aoc/boot_run");
    make_dirs(spdm + "/spdm_saved_measurements_bins/gpu0");
    make_dirs(spdm + "/spdm_saved_cert_chains");
    write_bytes(spdm + "/spdm_saved_cert_chains/gpu0.der", pattern(600));
    write_bytes(spdm + "/spdm_saved_measurements_bins/gpu0/boot.bin", pattern(300));
    write_bytes(path("/etc/defaults/spdm_dalu_rootCA.der"), pattern(500, 1));
    write_bytes(path("/etc/defaults/spdm_nv_rootCA.der"), pattern(500, 2));
    char where[512];
    uint8_t buf[8192], status[16];
    uint32_t size = sizeof buf;
    const auto reset_size = [&] { size = sizeof buf; };
    const std::vector<int> not_found = {-1, REGISTRATION_FAILED,
                                        static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND)};
    sweep_each({
        SWEEP(pta20_att_dump, "abc123", where, sizeof where).failing(GOES_ON),
        SWEEP_IN_SESSION(pta_invoke_att_dump, 12, "abc", nullptr, 0).failing(CLIENT_OR_GOES_ON),
        SWEEP_CLIENT(_pta_invoke_att_dump, 12, "abc", nullptr, 0, nullptr, 0),
        SWEEP_CLIENT(pta_invoke_blk_get, 16, 1, 2, "name"),
        SWEEP(pta20_get_cert, 4, buf, &size).prepared(reset_size),
        SWEEP_IN_SESSION(pta_invoke_dalu_get_certificate, 34, 4, buf, &size)
            .prepared(reset_size)
            .failing(not_found),
        SWEEP(pta20_prov_query, 0),
        SWEEP_IN_SESSION(pta_invoke_prov_query, 22, 0, nullptr, 0),
        SWEEP_CLIENT(_pta_invoke_prov_query, 22, 0, status, sizeof status),
        SWEEP(pta20_ra_refresh, nullptr, 0),
        SWEEP_CLIENT(pta_invoke_ra_refresh, 26, nullptr, 0),
    });
}

TEST_F(FaultSweepTest, CertificatesAndSigning) {
    const CertificateSet &c = certificates();
    ASSERT_FALSE(c.leaf.empty()) << "openssl could not make test certificates";
    const auto leaf_len = static_cast<uint32_t>(c.leaf.size());
    const auto ca_len = static_cast<uint32_t>(c.ca.size());
    const uint8_t *leaf = c.leaf.data();
    const char *leaf_file = c.leaf_path.c_str();
    const std::string csr = path("/tmp/device.csr"), subject = path("/tmp/subject.txt");
    const std::string data = path("/tmp/measurements.bin"), block = path("/tmp/block.bin");
    std::string signature;
    write_file(subject, "CN=device");
    make_dirs(path("/tmp/attestation"));
    write_file(path("/tmp/attestation/ra_uid"), std::string(20, '\x07'));
    write_file(data, "boot measurements");
    Bytes blk = new_block(4096);
    ASSERT_EQ(set(blk, "key", to_bytes("value")), 0);
    write_bytes(block, blk);
    const uintptr_t words[] = {reinterpret_cast<uintptr_t>(leaf), leaf_len,
                               reinterpret_cast<uintptr_t>(c.ca.data()), ca_len};
    // The verification takes its "data:signature" text apart in place: a fresh one each time.
    const auto sign = [&] {
        capture_stdout(
            [&] { in_session([&] { return pta_invoke_att_sign(14, 0, data.c_str()); }); });
        signature = data + ":" + data + ".sig";
    };
    sweep_each({
        SWEEP(pta20_crt_replace, 5, leaf_file, 0),
        SWEEP(pta20_crt_replace_import, nullptr, leaf, leaf_len, 1),
        SWEEP(pta20_ra_crt_replace_import, nullptr, leaf, leaf_len, 0).failing(CLIENT_OR_GOES_ON),
        SWEEP_CLIENT(pta_invoke_replace_crt, 11, 1, nullptr, 0, leaf_file, nullptr, 0),
        SWEEP_IN_SESSION(pta_invoke_replace_ra_crt, 27, 1, nullptr, 0, leaf_file, nullptr, 0)
            .failing(CLIENT_OR_GOES_ON),
        SWEEP_CLIENT(pta_invoke_replace_crt_import, "uri", leaf, leaf_len, 0),
        SWEEP_IN_SESSION(pta_invoke_replace_ra_crt_import, "uri", leaf, leaf_len, 0)
            .failing(CLIENT_OR_GOES_ON),
        SWEEP(pta20_gen_csr_import, csr.c_str(), "CN=device", 9),
        SWEEP_CLIENT(pta_invoke_gen_csr_import, csr.c_str(), "CN=device", 9),
        SWEEP_CLIENT(pta_invoke_gen_csr, 13, csr.c_str(), nullptr, 0, subject.c_str()),
        SWEEP_CLIENT(pta_invoke_att_sign, 14, 0, data.c_str()),
        SWEEP_CLIENT(pta_invoke_att_verify, 15, signature.data()).prepared(sign),
        SWEEP(pta20_att_security_validate, 1),
        SWEEP_CLIENT(pta_invoke_att_validate, 24, 1),
        SWEEP_CLIENT(pta_invoke_blk_verify, 17, block.c_str()),
        SWEEP(pta20_auth_certs, words).failing(AUTHENTICATION),
        SWEEP_IN_SESSION(pta_invoke_auth_certs, 30, leaf_file, c.ca_path.c_str())
            .failing(AUTHENTICATION),
        SWEEP_IN_SESSION(_pta_invoke_auth_certs, 30, leaf, leaf_len, c.ca.data(), ca_len)
            .failing(AUTHENTICATION),
    });
}

// The otp program's main, with the words of line as its arguments.
int otp(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    std::vector<char *> argv;
    argv.reserve(words.size());
    for (std::string &w : words) {
        argv.push_back(w.data());
    }
    return otp_main(static_cast<int32_t>(argv.size()), argv.data());
}

TEST_F(FaultSweepTest, Otp) {
    uint8_t key[64], byte = 0x5a;
    char serial[64];
    uint32_t word = 0, offset = 0; // a programmed OTP byte cannot be programmed again
    const std::string key_file = path("/tmp/key.bin"), usr_file = path("/tmp/usr.bin");
    write_file(usr_file, "\x01");
    const auto next = [&] {
        std::ostringstream hex;
        hex << std::hex << offset++;
        return hex.str();
    };
    sweep_each({
        SWEEP(pta_invoke_otp_get_key, 20, 3, key, 32),
        SWEEP_CLIENT(__pta_invoke_otp_get_key, 20, 3, key, 32),
        SWEEP(pta_invoke_otp_prog_usr, 21, offset++, &byte, 1),
        SWEEP_CLIENT(__pta_invoke_otp_prog_usr, 21, offset++, &byte, 1),
        SWEEP(pta20_otp_board_sn_get, &word, serial, sizeof serial),
        SWEEP(pta_invoke_otp_get_board_sn, 23, &word, serial, sizeof serial),
        SWEEP_CLIENT(_pta_invoke_board_sn_get, 23, &word, serial, sizeof serial),
        // The otp program's main reports failures in its messages and always returns 0.
        sweep_call("otp_main getkey", [&] { return otp("getkey 3 " + key_file); }).failing({0}),
        sweep_call("otp_main prog_usr", [&] { return otp("prog_usr " + next() + " " + usr_file); })
            .failing({0}),
        sweep_call("otp_main getsn", [&] { return otp("getsn"); }).failing({0}),
    });
}

} // namespace
