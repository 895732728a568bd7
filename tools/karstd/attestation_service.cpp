// SPDX-License-Identifier: Apache-2.0
#include "attestation_service.hpp"

#include "certificate_der.hpp"
#include "device_certificate.hpp"
#include "encoding.hpp"
#include "small_file.hpp"

#include "karst.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <sys/random.h>
#include <unistd.h>
#include <vector>

namespace karstd {
namespace {

constexpr char PATH[] = "/xyz/openbmc_project/ComponentIntegrity/karst";
constexpr char INTEGRITY[] = "xyz.openbmc_project.Attestation.ComponentIntegrity";
constexpr char MEASUREMENTS[] = "xyz.openbmc_project.Attestation.MeasurementSet";
constexpr char HASHING[] = "TPM_ALG_SHA_256";
// The statement's format ("KARST-ATT v1"): the secure world's own, not an SPDM message.
constexpr char STATEMENT_VERSION[] = "1";
constexpr size_t NONCE_MAX = 64;
constexpr size_t NONCE_BYTES = 32;
constexpr uint64_t ALL_MEASUREMENTS = 255; // the index that asks for every measurement
constexpr size_t RESULT_MAX = 1 << 20;

const sd_bus_vtable INTEGRITY_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Enabled", "b", property<&AttestationService::enabled>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Type", "s", property<&AttestationService::type>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("TypeVersion", "s", property<&AttestationService::type_version>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("LastUpdated", "t", property<&AttestationService::last_updated>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable MEASUREMENTS_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "SPDMGetSignedMeasurements", "atst",
        SD_BUS_PARAM(MeasurementIndices) SD_BUS_PARAM(Nonce) SD_BUS_PARAM(SlotId), "osssss",
        SD_BUS_PARAM(Certificate) SD_BUS_PARAM(HashingAlgorithm) SD_BUS_PARAM(PublicKey)
            SD_BUS_PARAM(SignedMeasurements) SD_BUS_PARAM(SigningAlgorithm) SD_BUS_PARAM(Version),
        method<&AttestationService::signed_measurements>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// Without a nonce of the caller's, a fresh one: 32 random bytes in hexadecimal.
std::string fresh_nonce() {
    std::array<uint8_t, NONCE_BYTES> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw BusError(error::INTERNAL_FAILURE, "no random nonce");
    }
    std::string hex;
    constexpr char DIGITS[] = "0123456789abcdef";
    constexpr unsigned NIBBLE = 4;
    for (const uint8_t b : bytes) {
        hex += DIGITS[b >> NIBBLE];
        hex += DIGITS[b & ((1u << NIBBLE) - 1)];
    }
    return hex;
}

// The dump signs every measurement the controller saved: no indices, or 255 (all).
void check_indices(sd_bus_message *m) {
    const void *data = nullptr;
    size_t bytes = 0;
    check(sd_bus_message_read_array(m, 't', &data, &bytes), "reading the indices");
    const auto *indices = static_cast<const uint64_t *>(data);
    if (!std::all_of(indices, indices + bytes / sizeof(uint64_t),
                     [](uint64_t i) { return i == ALL_MEASUREMENTS; })) {
        throw BusError(error::INVALID_ARGUMENT,
                       "the signed measurements cover every measurement: give no indices, or 255");
    }
}

std::vector<uint8_t> read_result(const char *path) {
    std::optional<std::vector<uint8_t>> bytes = read_small_file(path, RESULT_MAX);
    ::unlink(path); // karstd is the dump's only reader
    if (!bytes) {
        throw BusError(error::INTERNAL_FAILURE, std::string("cannot read ") + path);
    }
    return std::move(*bytes);
}

// The dump for nonce, inside the open session.
std::vector<uint8_t> dump(const std::string &nonce) {
    std::array<char, PATH_MAX> path{};
    if (pta_invoke_att_dump(PTA_DALU_CMD_ATT_DUMP, nonce.c_str(), path.data(), path.size()) != 0 ||
        path[0] == '\0') {
        throw BusError(error::INTERNAL_FAILURE, "the attestation dump failed");
    }
    return read_result(path.data());
}

} // namespace

bool nonce_ok(const std::string &nonce) {
    return !nonce.empty() && nonce.size() <= NONCE_MAX &&
           std::all_of(nonce.begin(), nonce.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '_';
           });
}

AttestationService::AttestationService(sd_bus *bus, const SecureWorld &secure_world)
    : bus_(bus), secure_world_(secure_world) {
    integrity_slot_ = add_interface(bus_, PATH, INTEGRITY, INTEGRITY_VTABLE, this);
    measurements_slot_ = add_interface(bus_, PATH, MEASUREMENTS, MEASUREMENTS_VTABLE, this);
}

std::string AttestationService::type() const {
    return "xyz.openbmc_project.Attestation.ComponentIntegrity.SecurityTechnologyType.OEM";
}

std::string AttestationService::type_version() const {
    return STATEMENT_VERSION;
}

int AttestationService::signed_measurements(sd_bus_message *m) {
    check_indices(m);
    const char *given = nullptr;
    uint64_t slot = 0;
    check(sd_bus_message_read(m, "st", &given, &slot), "reading the arguments");
    const std::string nonce = *given == '\0' ? fresh_nonce() : given;
    if (!nonce_ok(nonce)) {
        throw BusError(error::INVALID_ARGUMENT,
                       "a nonce is 1 to 64 letters, digits, '-' or '_' (64 hexadecimal digits)");
    }
    if (slot != 0) {
        throw BusError(error::INVALID_ARGUMENT, "the device key is in slot 0 alone");
    }
    std::vector<uint8_t> result;
    std::vector<uint8_t> device;
    secure_world_.run([&] {
        result = dump(nonce);
        device = read_certificate(CHAIN_DEVICE_CERTIFICATE);
    });
    const auto key = public_key_info(device);
    const KeyKind *kind = key ? key_kind(*key) : nullptr;
    if (kind == nullptr) {
        throw BusError(error::INTERNAL_FAILURE, "the device certificate's key is not known");
    }
    last_updated_ = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              std::chrono::system_clock::now().time_since_epoch())
                                              .count());
    sd_bus_emit_properties_changed(bus_, PATH, INTEGRITY, "LastUpdated", nullptr);
    return sd_bus_reply_method_return(m, "osssss", DEVICE_CERTIFICATE_PATH, HASHING,
                                      pem("PUBLIC KEY", *key).c_str(), base64(result).c_str(),
                                      kind->signing, STATEMENT_VERSION);
}

} // namespace karstd
