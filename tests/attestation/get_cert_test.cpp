// Certificate retrieval: the device's real chain cut out certificate by certificate and accepted
// by openssl; the DER walk over chains made in the test, malformed ones included; indexes,
// buffers and results.
#include "attestation/att_support.hpp"

#include "core/shell.hpp"

#include <algorithm>
#include <memory>
#include <openssl/x509.h>

using namespace karst::test;

namespace {

class GetCertTest : public KarstTest {
  protected:
    // Makes the secure world answer command 34 with data, whatever the slot.
    static void answer(const Bytes &data) {
        karst_emu_answer(PTA_DALU_CMD_GET_CERTIFICATE, 1, data.data(), data.size());
    }
    // pta_invoke_dalu_get_certificate in an open session: result, certificate, output.
    struct Got {
        int rc;
        Bytes cert;
        std::string out;
    };
    Got get(int32_t index, uint32_t capacity = 8192) {
        Got g{};
        Bytes buf(capacity, 0xAA);
        uint32_t size = capacity;
        EXPECT_EQ(pta_open_session(), 0u);
        g.out = capture_stdout(
            [&] { g.rc = pta_invoke_dalu_get_certificate(34, index, buf.data(), &size); });
        pta_close_session();
        if (g.rc == 0) {
            EXPECT_TRUE(std::all_of(buf.begin() + size, buf.end(), [](uint8_t b) { return !b; }));
            buf.resize(size);
            g.cert = buf;
        } else {
            EXPECT_EQ(size, capacity) << "the size is left as it was on failure";
            EXPECT_TRUE(std::all_of(buf.begin(), buf.end(), [](uint8_t b) { return !b; }))
                << "the caller's buffer is cleared once the arguments passed";
        }
        return g;
    }
    // Whether openssl accepts the bytes as one DER certificate.
    bool openssl_accepts(const Bytes &der, const std::string &name) {
        const std::string file = path("/tmp/" + name);
        write_bytes(file, der);
        return karst::shell::run("openssl x509 -inform DER -in " + karst::shell::quote(file) +
                                 " -noout 2>/dev/null") == 0;
    }
};

// Whether issuer's key signed cert (both DER).
bool issued_by(const Bytes &cert, const Bytes &issuer) {
    const unsigned char *p = cert.data();
    const unsigned char *q = issuer.data();
    std::unique_ptr<X509, decltype(&X509_free)> c(
        d2i_X509(nullptr, &p, static_cast<long>(cert.size())), &X509_free);
    std::unique_ptr<X509, decltype(&X509_free)> i(
        d2i_X509(nullptr, &q, static_cast<long>(issuer.size())), &X509_free);
    return c && i && X509_verify(c.get(), X509_get0_pubkey(i.get())) == 1 &&
           X509_NAME_cmp(X509_get_issuer_name(c.get()), X509_get_subject_name(i.get())) == 0;
}

Bytes der(std::initializer_list<uint8_t> header, size_t content, unsigned seed = 0) {
    Bytes b(header);
    const Bytes body = pattern(content, seed);
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

TEST_F(GetCertTest, TheDevicesChainIsCutIntoCertificatesThatOpensslAccepts) {
    std::vector<Bytes> certs;
    for (int32_t index : {4, 2, 1, 0}) { // chain positions 0 to 3, root first
        uint8_t buf[8192];
        uint32_t size = sizeof buf;
        ASSERT_EQ(pta20_get_cert(index, buf, &size), 0) << index;
        certs.emplace_back(buf, buf + size);
        EXPECT_TRUE(openssl_accepts(certs.back(), "cert" + std::to_string(index) + ".der"))
            << "index " << index;
    }
    // Both long length forms are walked: one length byte (0x81) and two (0x82).
    EXPECT_EQ(certs[0][1], 0x82) << "the RSA root";
    EXPECT_EQ(certs[2][1], 0x81) << "the device CA";

    // Each certificate is signed by the one before it; the root by itself.
    for (size_t i = 0; i < certs.size(); ++i) {
        EXPECT_TRUE(issued_by(certs[i], certs[i == 0 ? 0 : i - 1])) << "position " << i;
    }
    EXPECT_FALSE(issued_by(certs[3], certs[1]));

    // Index 5: one whole object, the device certificate in PEM before any replacement.
    const Got obj = get(5);
    ASSERT_EQ(obj.rc, 0);
    const std::string pem = to_text(obj.cert.data(), obj.cert.size());
    EXPECT_EQ(pem.rfind("-----BEGIN CERTIFICATE-----\n", 0), 0u);
    write_file(path("/tmp/obj.pem"), pem);
    ASSERT_EQ(karst::shell::run("openssl x509 -in " + karst::shell::quote(path("/tmp/obj.pem")) +
                                " -outform DER -out " + karst::shell::quote(path("/tmp/obj.der"))),
              0);
    EXPECT_EQ(read_bytes(path("/tmp/obj.der")), certs[3]);
}

TEST_F(GetCertTest, WalkFindsEachPositionInShortAndLongLengthForms) {
    const Bytes a = der({0x30, 0x82, 0x01, 0x0a}, 266, 1); // 270 bytes
    const Bytes b = der({0x30, 0x81, 0x80}, 128, 2);       // 131 bytes
    const Bytes c = der({0x30, 0x05}, 5, 3);               // 7 bytes
    answer(join({a, b, c}));
    EXPECT_EQ(get(4).cert, a);
    EXPECT_EQ(get(2).cert, b);
    EXPECT_EQ(get(1).cert, c);
    const Got missing = get(0);
    EXPECT_EQ(missing.rc, static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_TRUE(matches(missing.out, R"(\[E:pta_invoke_dalu_get_certificate:\d+\] Certificate 3 )"
                                     R"(\(cert_index 0\) not found in concatenated data)"));
    EXPECT_EQ(get(5).cert, join({a, b, c}));

    answer(join({a, b}));
    const Got one_short = get(1);
    EXPECT_EQ(one_short.rc, static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_TRUE(matches(one_short.out, R"(\[E:pta_invoke_dalu_get_certificate:\d+\] Certificate 2 )"
                                       R"(\(cert_index 1\) not found in concatenated data)"));
    // A long form without length bytes counts as length 0.
    answer(join({Bytes{0x30, 0x80}, a}));
    EXPECT_EQ(get(4).cert, Bytes({0x30, 0x80}));
    EXPECT_EQ(get(2).cert, a);
}

TEST_F(GetCertTest, MalformedChainsAreReportedAtTheFaultAndNeverReadPastTheData) {
    const Bytes a = der({0x30, 0x82, 0x01, 0x0a}, 266, 1);
    struct Case {
        Bytes data;
        int32_t index;
        std::string message;
    };
    const std::string f = R"(\[E:pta_invoke_dalu_get_certificate:\d+\] )";
    const std::vector<Case> cases = {
        {der({0x31, 0x03}, 3), 4, R"(Invalid certificate tag at offset 0: 0x31 \(expected 0x30\))"},
        {join({a, Bytes{0x04, 0x00}}), 2,
         R"(Invalid certificate tag at offset 270: 0x04 \(expected 0x30\))"},
        {Bytes{0x30, 0x84, 0x00, 0x00}, 4, "Invalid length encoding at offset 0"},
        {join({a, Bytes{0x30, 0x82, 0x01}}), 2, "Invalid length encoding at offset 270"},
        {join({a, Bytes{0x30}}), 2, "Invalid certificate format at offset 270"},
        {der({0x30, 0x82, 0x01, 0x0a}, 10), 4, "Certificate 0 length 270 exceeds buffer size 14"},
        {join({a, der({0x30, 0x10}, 3)}), 2, "Certificate 1 length 18 exceeds buffer size 5"},
        // Lengths that would wrap a 32-bit size are reckoned in full.
        {Bytes{0x30, 0x84, 0xff, 0xff, 0xff, 0xff}, 4,
         "Certificate 0 length 4294967301 exceeds buffer size 6"},
        {Bytes{0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x03, 1, 2, 3}, 4, ""}, // 32-bit length 3
    };
    for (const Case &c : cases) {
        answer(c.data);
        const Got g = get(c.index);
        if (c.message.empty()) {
            EXPECT_EQ(g.rc, 0);
            EXPECT_EQ(g.cert, c.data);
            continue;
        }
        EXPECT_EQ(g.rc, static_cast<int>(TEEC_ERROR_BAD_FORMAT)) << c.message;
        EXPECT_TRUE(matches(g.out, f + c.message)) << c.message;
    }
    // A trailing byte only matters when the position sought lies beyond it.
    answer(join({a, Bytes{0x30}}));
    EXPECT_EQ(get(4).cert, a);
}

TEST_F(GetCertTest, IndexesAndBuffersAreCheckedBeforeTheSecureWorld) {
    const std::string f = R"(\[E:pta_invoke_dalu_get_certificate:\d+\] )";
    Got g = get(3);
    EXPECT_EQ(g.rc, static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_TRUE(matches(g.out, f + "Certificate index 3 not available"));
    for (int32_t index : {-1, 6, INT32_MIN, 1000}) {
        g = get(index);
        EXPECT_EQ(g.rc, static_cast<int>(TEEC_ERROR_BAD_PARAMETERS));
        EXPECT_TRUE(matches(g.out, f + "Invalid certificate index " + std::to_string(index)));
    }
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    uint8_t buf[16];
    uint32_t size = 0;
    ASSERT_EQ(pta_open_session(), 0u);
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta_invoke_dalu_get_certificate(34, 4, nullptr, &size),
                  static_cast<int>(TEEC_ERROR_BAD_PARAMETERS));
        EXPECT_EQ(pta_invoke_dalu_get_certificate(34, 4, buf, nullptr),
                  static_cast<int>(TEEC_ERROR_BAD_PARAMETERS));
        EXPECT_EQ(pta_invoke_dalu_get_certificate(34, 4, buf, &size),
                  static_cast<int>(TEEC_ERROR_BAD_PARAMETERS));
    });
    pta_close_session();
    EXPECT_TRUE(matches(out, "(" + f + "Invalid buffer or size){3}"));
    karst_emu_reset();

    // The exported call refuses the same before any session and leaves *size alone on failure.
    EXPECT_EQ(pta20_get_cert(4, buf, &size), -1);
    EXPECT_EQ(pta20_get_cert(4, nullptr, &size), -1);
    EXPECT_EQ(pta20_get_cert(4, buf, nullptr), -1);
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);
    size = sizeof buf; // too small for the chain: the secure world answers short buffer
    capture_stdout([&] { EXPECT_EQ(pta20_get_cert(4, buf, &size), -1); });
    EXPECT_EQ(size, sizeof buf);
}

TEST_F(GetCertTest, SecureWorldFailuresAreReportedAsNotFound) {
    Bytes buf(16);
    uint32_t size = 16;
    ASSERT_EQ(pta_open_session(), 0u);
    std::string out = capture_stdout([&] {
        // The whole chain does not fit 16 bytes: the secure world answers short buffer.
        EXPECT_EQ(pta_invoke_dalu_get_certificate(34, 4, buf.data(), &size),
                  static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND));
    });
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_dalu_get_certificate:\d+\] TEEC_InvokeCommand )"
                             R"(failed: 0xffff0010 origin 0x4)"));
    ASSERT_EQ(journal().size(), 1u);
    EXPECT_EQ(journal()[0].param_types, 0x00C1u);
    EXPECT_EQ(journal()[0].params[0].a, 4u);
    EXPECT_EQ(journal()[0].params[0].b, 0u);
    EXPECT_EQ(journal()[0].params[1].size, 16u);

    karst_emu_fail_nth(KARST_EMU_REGISTER, 1, TEEC_ERROR_OUT_OF_MEMORY);
    int rc = 0;
    out = capture_stdout([&] { rc = pta_invoke_dalu_get_certificate(34, 5, buf.data(), &size); });
    EXPECT_EQ(rc, static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY));
    EXPECT_TRUE(matches(out, R"(\[E:pta_invoke_dalu_get_certificate:\d+\] )"
                             R"(TEEC_RegisterSharedMemory failed: 0xffff000c)"));

    // Dispatcher number 34: index in word 0, buffer in word 5, size in word 3 (written back
    // only on success).
    Bytes big(8192);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 4, 0, 0, 0, big.size(), reinterpret_cast<uintptr_t>(big.data()));
    capture_stdout([&] { EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_GET_CERTIFICATE, block), 0); });
    EXPECT_GT(block[3], 100u);
    EXPECT_LT(block[3], 8192u);
    pta20_args(block, 4, 0, 0, 0, 16, reinterpret_cast<uintptr_t>(big.data()));
    capture_stdout([&] { EXPECT_NE(pta_invoke_cmd(PTA_DALU_CMD_GET_CERTIFICATE, block), 0); });
    EXPECT_EQ(block[3], 16u);
    pta_close_session();
}

} // namespace
