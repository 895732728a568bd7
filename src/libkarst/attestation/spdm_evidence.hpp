// SPDX-License-Identifier: Apache-2.0
// SPDM evidence for the attestation dump: what the controller's SPDM software saved in its
// boot-time run about the devices it attested. Certificate chains and measurements become KLV
// records packed back to back into one buffer; the root CA certificates become keys of the
// attestation data block. A file that cannot be used is logged and skipped; nothing here stops
// the dump.
#pragma once

#include <cstdint>

namespace karst::att {

constexpr std::uint32_t SPDM_KLV_MAX_RECORDS = 10; // of each kind
constexpr std::uint32_t SPDM_KLV_BUFFER_SIZE = 65536;

// Appends one record (name pair of key, value pair of value_len bytes) at *offset of buffer
// (capacity bytes) and advances *offset. Returns 0; -1 when key, buffer or offset is missing or
// the key cannot be recorded (empty, or longer than 255 bytes); -2 when the record does not fit.
// Nothing is written and *offset is unchanged on failure.
int klv_append(const char *key, const std::uint8_t *value, std::uint32_t value_len,
               std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset);

// Records for "<name>.der" files of the certificate chain directory, at most ten.
void spdm_collect_cert_chains(std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset);
// Records for "<name>.bin" files in the subdirectories of the measurement directory, at most
// ten in all.
void spdm_collect_measurements(std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset);
// Stores each root CA file of root_ca_files under its key of root_ca_keys in the attestation
// data block (which may be missing: each store then fails and is logged).
void spdm_add_root_cas(std::uint8_t *block);

} // namespace karst::att
