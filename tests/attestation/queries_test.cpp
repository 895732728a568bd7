// What the secure world is asked for: certificates (the device's real chain cut out certificate by
// certificate; the DER walk over chains made in the test, malformed ones included), data blocks
// (what reaches the secure world, the file left, the refusals) and the provisioning query's yes,
// no and failure.
#include "attestation/att_support.hpp"

#include <memory>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

using namespace karst::test;

namespace {

constexpr int NOT_FOUND = static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND);
constexpr int BAD_FORMAT = static_cast<int>(TEEC_ERROR_BAD_FORMAT);
constexpr int BAD_PARAMETERS = static_cast<int>(TEEC_ERROR_BAD_PARAMETERS);
const std::string GET_CERT = R"(\[E:pta_invoke_dalu_get_certificate:\d+\] )";
const std::string BLK_GET = R"(\[E:pta_invoke_blk_get:\d+\] )";

// pta_invoke_dalu_get_certificate with a buffer of capacity bytes in a session of its own,
// expected to return rc: the certificate (hex) and what it printed. A failure leaves the size
// alone and the caller's buffer cleared.
std::string get(int32_t index, int rc, size_t capacity) {
    Bytes buf(capacity, 0xAA);
    auto size = static_cast<uint32_t>(capacity);
    const std::string out = printed(rc, [&] {
        return in_session(
            [&] { return pta_invoke_dalu_get_certificate(34, index, buf.data(), &size); });
    });
    EXPECT_TRUE(rc == 0 || (size == capacity && buf == Bytes(capacity, 0))) << index;
    return rc == 0 ? hex(buf.data(), size) + out : out;
}

using QueriesTest = KarstTest;

// Root first at indexes 4, 2, 1, 0, each signed by the one before it (the root by itself); both
// long length forms are walked (two length bytes for the RSA root, one for the device CA). Index
// 5 is one whole object: the device certificate in PEM.
TEST_F(QueriesTest, TheDevicesChainIsCutIntoCertificatesEachIssuedByTheOneBefore) {
    std::vector<std::unique_ptr<X509, decltype(&X509_free)>> certs;
    for (int32_t index : {4, 2, 1, 0, 5}) {
        uint8_t buf[8192];
        uint32_t size = sizeof buf;
        ASSERT_EQ(pta20_get_cert(index, buf, &size), 0) << index;
        const unsigned char *end = buf;
        std::unique_ptr<BIO, decltype(&BIO_free)> pem(BIO_new_mem_buf(buf, int(size)), &BIO_free);
        certs.emplace_back(index == 5 ? PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr)
                                      : d2i_X509(nullptr, &end, size),
                           &X509_free);
        ASSERT_TRUE(certs.back() && (index == 5 || end == buf + size)) << index;
        EXPECT_EQ(buf[1], index == 4 ? 0x82 : index == 1 ? 0x81 : buf[1]);
    }
    for (size_t i = 0; i < 4; ++i) {
        X509 *issuer = certs[i == 0 ? 0 : i - 1].get();
        EXPECT_EQ(X509_verify(certs[i].get(), X509_get0_pubkey(issuer)), 1) << i;
        EXPECT_EQ(X509_check_issued(issuer, certs[i].get()), X509_V_OK) << i;
    }
    EXPECT_EQ(X509_cmp(certs[4].get(), certs[3].get()), 0);
    // The whole chain does not fit 16 bytes: the secure world answers short buffer, and the
    // exported call leaves the size alone; a missing or empty buffer is refused before any session.
    EXPECT_TRUE(matches(get(4, NOT_FOUND, 16),
                        GET_CERT + "TEEC_InvokeCommand failed: 0xffff0010 origin 0x4"));
    EXPECT_EQ(shape(), "34 00c1 v4,0 16o - -");
    uint8_t buf[16];
    uint32_t size = sizeof buf;
    printed(-1, [&] { return pta20_get_cert(4, buf, &size); });
    EXPECT_EQ(size, sizeof buf);
    karst_emu_reset();
    size = 0;
    EXPECT_EQ(pta20_get_cert(4, buf, &size) + pta20_get_cert(4, nullptr, &size) +
                  pta20_get_cert(4, buf, nullptr),
              -3);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);
}

// Chains made in the test, each answered into a buffer of its own size (a certificate may fill
// it); indexes are checked before the secure world.
TEST_F(QueriesTest, TheWalkFindsEachPositionAndReportsMalformedChainsAtTheFault) {
    const Bytes a = join({{0x30, 0x82, 0x01, 0x0a}, pattern(266, 1)}); // 270 bytes
    const Bytes ab = join({a, {0x30, 0x81, 0x80}, pattern(128, 2)});
    const Bytes five = {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x03, 1, 2, 3}; // 32-bit length 3
    // The answer, an index, the result, and the certificate (hex) or the message.
    const std::tuple<Bytes, int32_t, int, std::string> rows[] = {
        {ab, 0, NOT_FOUND, R"(Certificate 3 \(cert_index 0\) not found in concatenated data)"},
        {ab, 1, NOT_FOUND, R"(Certificate 2 \(cert_index 1\) not found in concatenated data)"},
        {join({{0x30, 0x80}, a}), 4, 0, "30 80"}, // a long form without length bytes: length 0
        {five, 4, 0, hex(five)},
        {join({a, {0x30}}), 4, 0, hex(a)}, // a trailing byte matters only when sought past
        {join({a, {0x30}}), 2, BAD_FORMAT, "Invalid certificate format at offset 270"},
        {join({a, {0x04, 0x00}}), 2, BAD_FORMAT,
         R"(Invalid certificate tag at offset 270: 0x04 \(expected 0x30\))"},
        {join({a, {0x30, 0x82, 0x01}}), 2, BAD_FORMAT, "Invalid length encoding at offset 270"},
        {join({a, {0x30, 0x10, 1, 2, 3}}), 2, BAD_FORMAT,
         "Certificate 1 length 18 exceeds buffer size 5"},
        // Lengths that would wrap a 32-bit size are reckoned in full.
        {{0x30, 0x84, 0xff, 0xff, 0xff, 0xff},
         4,
         BAD_FORMAT,
         "Certificate 0 length 4294967301 exceeds buffer size 6"},
        {ab, 3, NOT_FOUND, "Certificate index 3 not available"},
        {ab, -1, BAD_PARAMETERS, "Invalid certificate index -1"},
        {ab, 6, BAD_PARAMETERS, "Invalid certificate index 6"},
        {{}, 4, BAD_PARAMETERS, "Invalid buffer or size"},
    };
    for (const auto &[data, index, rc, expected] : rows) {
        karst_emu_journal_clear();
        karst_emu_answer(PTA_DALU_CMD_GET_CERTIFICATE, 1, data.data(), data.size());
        EXPECT_TRUE(matches(get(index, rc, data.size()), rc == 0 ? expected : GET_CERT + expected));
        const bool asked = index >= 0 && index != 3 && index <= 5 && !data.empty();
        EXPECT_EQ(karst_emu_journal_count(), asked ? 1u : 0u) << expected;
    }
}

TEST_F(QueriesTest, EveryBlockTypeReachesTheSecureWorldAndTheFileIsAlwaysWhole) {
    const std::string file = path("/tmp/datablk.bin");
    const auto blk_get = [](uint32_t type, uint32_t value, const char *name, int rc) {
        return printed(rc, [&] {
            return in_session([&] { return pta_invoke_blk_get(16, type, value, name); });
        });
    };
    for (uint32_t type = 0; type <= 3; ++type) {
        const std::string value = std::to_string(0xFFFFFFF0u + type);
        EXPECT_EQ(blk_get(type, 0xFFFFFFF0u + type, "device-certs", 0), "");
        EXPECT_EQ(shape(), "16 0cc1 v" + std::to_string(type) + "," + value + " 12i 65536io -");
        EXPECT_EQ(sent(1), "device-certs");
        std::string expected = "KARST-BLOCK v1\ntype=" + std::to_string(type) + "\nvalue=" + value +
                               "\nname=device-certs\n";
        expected.resize(65536, '\0');
        EXPECT_TRUE(read_file(file) == expected) << "each call overwrites the file, all of it";
    }
    // Through the dispatcher: type in word 0, number in word 1, name in word 4.
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 2, 77, 0, reinterpret_cast<uintptr_t>("viadispatcher"), 0, 0);
    EXPECT_EQ(in_session([&] { return pta_invoke_cmd(PTA_DALU_CMD_BLK_GET, block); }), 0);
    const std::string kept = read_file(file);
    EXPECT_EQ(kept.substr(0, 50), "KARST-BLOCK v1\ntype=2\nvalue=77\nname=viadispatcher\n");
    // Refusals, with no command, and failures leave the earlier file as it was.
    karst_emu_journal_clear();
    EXPECT_TRUE(matches(blk_get(4, 0, "x", -1) + blk_get(0xFFFFFFFFu, 0, "x", -1) +
                            blk_get(0, 0, nullptr, -1),
                        BLK_GET + "Unsupported datablk type 4\n" + BLK_GET +
                            "Unsupported datablk type -1\n" + BLK_GET + "Missing datablk name\n"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    EXPECT_TRUE(matches(blk_get(0, 0, "missing-block", NOT_FOUND),
                        BLK_GET + "TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n"));
    EXPECT_TRUE(read_file(file) == kept);
    // The file cannot be made: a directory in its place is refused with the reason; without its
    // folder the message has no error prefix.
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_TRUE(matches(blk_get(0, 0, "x", -1),
                        BLK_GET + "Refused " + file + ": a directory is in the way\n"));
    std::filesystem::remove_all(path("/tmp"));
    EXPECT_EQ(blk_get(0, 0, "x", -1), "Failed to open file (" + file + ")\n");
}

// Yes for the device key and the factory chain; no for a certificate not replaced yet, for an
// unknown question and for an answer without a status byte; a no is silent. A caller's buffer
// keeps the answer, cleared before the command.
TEST_F(QueriesTest, ProvisioningQueryYesNoAndFailure) {
    EXPECT_EQ(printed(0, [] { return pta20_prov_query(0) + pta20_prov_query(1); }), "");
    EXPECT_EQ(printed(-2, [] { return pta20_prov_query(2) + pta20_prov_query(255); }), "");
    EXPECT_EQ(shape(), "22 00c1 v255,0 64o - -");
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, "", 0);
    EXPECT_EQ(pta20_prov_query(0), -1) << "an answer without a status byte is no";
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, nullptr, 0);
    uint8_t status[16];
    std::fill(std::begin(status), std::end(status), 0xEE);
    ASSERT_EQ(pta_open_session(), 0u);
    EXPECT_EQ(pta_invoke_prov_query(22, 7, status, sizeof status), -1);
    EXPECT_EQ(hex(status, 2), "01 00") << "the answer no, then cleared bytes";
    EXPECT_EQ(shape(), "22 00c1 v7,0 16o - -");
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(_pta_invoke_prov_query(22, 0, nullptr, 16) +
                      _pta_invoke_prov_query(22, 0, status, 0),
                  -2);
        EXPECT_EQ(_pta_invoke_prov_query(22, 256, status, 16), BAD_PARAMETERS);
    });
    pta_close_session();
    const std::string e = R"(\[E:_pta_invoke_prov_query:\d+\] )";
    EXPECT_TRUE(matches(out, "(" + e + "Incorrect buf or buf size\n){2}" + e +
                                 "TEEC_InvokeCommand failed with code 0xffff0006 origin 0x4\n"));
}

} // namespace
