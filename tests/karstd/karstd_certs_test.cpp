// SPDX-License-Identifier: Apache-2.0
// Attestation, certificates and the bus policy through karstd, each result checked with
// OpenSSL against the device's own certificate.
#include "karstd/karstd_fixture.hpp"
#include "support/openssl_tools.hpp"

#include <grp.h>
#include <unistd.h>

namespace karst::test {
namespace {

constexpr char INTEGRITY[] = "/xyz/openbmc_project/ComponentIntegrity/karst";
constexpr char DEVICE[] = "/xyz/openbmc_project/certs/karst/device";
constexpr char NONCE[] = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
constexpr size_t RESULT_SIZE = 66560;
constexpr size_t STATEMENT = 65536; // where the statement starts, and the signed bytes end at
constexpr size_t SIGNATURE = 65792; // ... the signature

// The device certificate's public key as PEM, read by the test itself.
std::string device_key_pem(const std::string &dir) {
    std::vector<uint8_t> der(8192);
    uint32_t size = der.size();
    capture_stdout([&] { EXPECT_EQ(pta20_get_cert(0, der.data(), &size), 0); });
    write_file(dir + "/device.der", std::string(der.begin(), der.begin() + size));
    return output_of("openssl x509 -inform DER -in " + dir + "/device.der -pubkey -noout");
}

TEST_F(KarstdTest, SignedMeasurementsHoldTheNonceAndVerifyWithTheDeviceKey) {
    Call c = call(INTEGRITY, "xyz.openbmc_project.Attestation.MeasurementSet",
                  "SPDMGetSignedMeasurements", "atst", 0u, NONCE, uint64_t{0});
    ASSERT_EQ(c.error, "");
    const char *certificate, *hashing, *key, *measurements, *signing, *version;
    ASSERT_GE(sd_bus_message_read(c.reply, "osssss", &certificate, &hashing, &key, &measurements,
                                  &signing, &version),
              0);
    EXPECT_STREQ(certificate, DEVICE);
    EXPECT_STREQ(signing, "TPM_ALG_ECDSA_ECC_NIST_P256");
    EXPECT_EQ(key, device_key_pem(root()));
    write_file(path("/key.pem"), key);
    write_file(path("/measurements.b64"), measurements);
    const std::string result = output_of("openssl base64 -d -A -in " + path("/measurements.b64"));
    ASSERT_EQ(result.size(), RESULT_SIZE);
    EXPECT_NE(result.find(std::string("nonce=") + NONCE + "\n", STATEMENT), std::string::npos);
    const size_t signature_size = 2 + static_cast<uint8_t>(result[SIGNATURE + 1]);
    write_file(path("/signed.bin"), result.substr(0, SIGNATURE));
    write_file(path("/signature.der"), result.substr(SIGNATURE, signature_size));
    EXPECT_EQ(sh("openssl dgst -sha256 -verify " + path("/key.pem") + " -signature " +
                 path("/signature.der") + " " + path("/signed.bin") + " >/dev/null"),
              0);
    uint64_t updated = 0;
    sd_bus_get_property_trivial(bus(), KARSTD_BUS_NAME, INTEGRITY,
                                "xyz.openbmc_project.Attestation.ComponentIntegrity", "LastUpdated",
                                nullptr, 't', &updated);
    EXPECT_GT(updated, 0u);
}

TEST_F(KarstdTest, RequestIsForTheDeviceKeyWithTheSubjectGiven) {
    Call c = call("/xyz/openbmc_project/certs/karst", "xyz.openbmc_project.Certs.CSR.Create",
                  "GenerateCSR", "asssssssssxssassssss", 0u, "", "Austin", "bmc-01", "", "US", "",
                  "", "", int64_t{256}, "prime256v1", "EC", 0u, "Example", "", "", "", "");
    ASSERT_EQ(c.error, "");
    const char *request = nullptr;
    ASSERT_GE(sd_bus_message_read(c.reply, "s", &request), 0);
    Call csr = call(request, "xyz.openbmc_project.Certs.CSR", "CSR", "");
    const char *pem = nullptr;
    ASSERT_GE(sd_bus_message_read(csr.reply, "s", &pem), 0);
    write_file(path("/request.pem"), pem);
    EXPECT_EQ(output_of("openssl req -in " + path("/request.pem") +
                        " -verify -noout -subject -nameopt compat 2>/dev/null"),
              "subject=/CN=bmc-01/O=Example/L=Austin/C=US\n");
    EXPECT_EQ(output_of("openssl req -in " + path("/request.pem") + " -pubkey -noout"),
              device_key_pem(root()));
}

TEST_F(KarstdTest, ReplacedCertificateBecomesTheDevicesCertificateString) {
    ASSERT_TRUE(make_ca(root(), "replacement"));
    const std::string pem = output_of("openssl x509 -inform DER -in " + path("/replacement.der"));
    write_file(path("/replacement.pem"), pem);
    EXPECT_EQ(call(DEVICE, "xyz.openbmc_project.Certs.Replace", "Replace", "s",
                   path("/replacement.pem").c_str())
                  .error,
              "");
    EXPECT_EQ(text(DEVICE, "xyz.openbmc_project.Certs.Certificate", "CertificateString"), pem);
}

// nobody (in the group the test's policy names) calls methods; daemon (uid 1, in no such group)
// reads properties only. A call that reaches karstd is refused there for its apply time.
TEST_F(KarstdTest, PolicyLetsTheGroupCallAndAnyoneRead) {
    const struct {
        uid_t uid;
        const char *call_error;
    } callers[] = {{65534, "xyz.openbmc_project.Common.Error.InvalidArgument"},
                   {1, "org.freedesktop.DBus.Error.AccessDenied"}};
    for (const auto &caller : callers) {
        const int status = in_child([&] {
            if (setgroups(0, nullptr) != 0 || setgid(caller.uid) != 0 || setuid(caller.uid) != 0) {
                return 9;
            }
            sd_bus *client = connect_bus(address());
            sd_bus_error error = SD_BUS_ERROR_NULL;
            const bool refused_as_expected =
                sd_bus_call_method(client, KARSTD_BUS_NAME,
                                   (SOFTWARE + std::string("bios")).c_str(),
                                   "xyz.openbmc_project.Software.Update", "StartUpdate", &error,
                                   nullptr, "hs", 0, "never") < 0 &&
                sd_bus_error_has_name(&error, caller.call_error);
            char *activation = nullptr;
            const bool read = sd_bus_get_property_string(client, KARSTD_BUS_NAME, INTEGRITY,
                                                         "xyz.openbmc_project.Attestation."
                                                         "ComponentIntegrity",
                                                         "Type", nullptr, &activation) >= 0;
            return (refused_as_expected ? 1 : 0) | (read ? 2 : 0);
        });
        EXPECT_EQ(status, 3) << "uid " << caller.uid;
    }
}

} // namespace
} // namespace karst::test
