// SPDX-License-Identifier: Apache-2.0
// Every refusal of karstd's methods, each as a client meets it: the D-Bus error's name.
#include "karstd/karstd_fixture.hpp"
#include "support/image_files.hpp"

#include <fcntl.h>
#include <functional>

namespace karst::test {
namespace {

constexpr char INVALID_ARGUMENT[] = "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr char UNAVAILABLE[] = "xyz.openbmc_project.Common.Error.Unavailable";
constexpr char INVALID_SIGNATURE[] = "xyz.openbmc_project.Software.Update.Error.InvalidSignature";
constexpr char INVALID_CERTIFICATE[] = "xyz.openbmc_project.Certs.Error.InvalidCertificate";
constexpr char NONCE[] = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
constexpr size_t IMAGE_SIZE = 1 << 20;

struct Refusal {
    const char *what;
    std::function<Call()> make;
    const char *error;
};

TEST_F(KarstdTest, RefusalsNameTheInterfacesErrors) {
    write_file(path("/good.bin"), image_bytes(IMAGE_SIZE));
    write_file(path("/unsigned.bin"), unsigned_image_bytes(IMAGE_SIZE));
    write_file(path("/empty.bin"), "");
    // The descriptor a row passes; closed after the call.
    auto with = [](const std::string &file, int flags, const std::function<Call(int)> &make) {
        const int fd = open(file.c_str(), flags | O_CLOEXEC);
        Call result = make(fd);
        close(fd);
        return result;
    };
    auto update = [&](const std::string &file, int flags, const char *apply_time = IMMEDIATE) {
        return with(file, flags, [&](int fd) { return start_update("bios", fd, apply_time); });
    };
    // Signed measurements of every measurement (index 0: none given) or of one.
    auto measurements = [&](const char *nonce, uint64_t slot, uint64_t index) {
        const std::string path = "/xyz/openbmc_project/ComponentIntegrity/karst";
        const char *set = "xyz.openbmc_project.Attestation.MeasurementSet";
        return index == 0
                   ? call(path, set, "SPDMGetSignedMeasurements", "atst", 0u, nonce, slot)
                   : call(path, set, "SPDMGetSignedMeasurements", "atst", 1u, index, nonce, slot);
    };
    auto csr = [&](const char *common_name, const char *country, const char *algorithm) {
        return call("/xyz/openbmc_project/certs/karst", "xyz.openbmc_project.Certs.CSR.Create",
                    "GenerateCSR", "asssssssssxssassssss", 0u, "", "", common_name, "", country, "",
                    "", "", int64_t{0}, "", algorithm, 0u, "", "", "", "", "");
    };
    const Refusal refusals[] = {
        {"a nonce the library refuses", [&] { return measurements("a nonce", 0, 0); },
         INVALID_ARGUMENT},
        {"a slot without the device key", [&] { return measurements(NONCE, 1, 0); },
         INVALID_ARGUMENT},
        {"some measurements only", [&] { return measurements(NONCE, 0, 3); }, INVALID_ARGUMENT},
        {"a request without a common name", [&] { return csr("", "US", ""); }, INVALID_ARGUMENT},
        {"an RSA key of an EC device key", [&] { return csr("bmc", "US", "RSA"); },
         INVALID_ARGUMENT},
        {"a subject the secure world refuses", [&] { return csr("bmc", "USA", ""); },
         INVALID_ARGUMENT},
        {"a file without a certificate",
         [&] {
             return call("/xyz/openbmc_project/certs/karst/device",
                         "xyz.openbmc_project.Certs.Replace", "Replace", "s",
                         path("/good.bin").c_str());
         },
         INVALID_CERTIFICATE},
        {"image failing authentication",
         [&] {
             Call refused = update(path("/unsigned.bin"), O_RDONLY);
             EXPECT_EQ(wait_end(recorded_path("bios")), "Failed"); // its object is left
             return refused;
         },
         INVALID_SIGNATURE},
        {"a directory", [&] { return update(root(), O_RDONLY | O_DIRECTORY); }, INVALID_ARGUMENT},
        {"a descriptor open for writing only", [&] { return update(path("/good.bin"), O_WRONLY); },
         INVALID_ARGUMENT},
        {"an empty file", [&] { return update(path("/empty.bin"), O_RDONLY); }, INVALID_ARGUMENT},
        {"staging without programming",
         [&] {
             return update(path("/good.bin"), O_RDONLY,
                           "xyz.openbmc_project.Software.ApplyTime.RequestedApplyTimes."
                           "OnActivationRequest");
         },
         INVALID_ARGUMENT},
        {"the session held by another program",
         [&] {
             const SessionHolder holder;
             EXPECT_TRUE(holder.holding());
             return update(path("/good.bin"), O_RDONLY);
         },
         UNAVAILABLE},
        {"a second update of the type while one runs",
         [&] {
             EXPECT_EQ(update(path("/good.bin"), O_RDONLY).error, "");
             return update(path("/good.bin"), O_RDONLY);
         },
         UNAVAILABLE},
        {"attestation while an update runs",
         [&] {
             EXPECT_EQ(update(path("/good.bin"), O_RDONLY).error, "");
             return measurements(NONCE, 0, 0);
         },
         UNAVAILABLE},
    };
    for (const Refusal &refusal : refusals) {
        EXPECT_EQ(refusal.make().error, refusal.error) << refusal.what;
        EXPECT_TRUE(updates_ended());
    }
    EXPECT_EQ(wait_end(recorded_path("bios")), "Active");
}

} // namespace
} // namespace karst::test
