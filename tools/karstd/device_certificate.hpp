// SPDX-License-Identifier: Apache-2.0
// The secure world's certificates that karstd shows: the device certificate of the factory
// chain (its key signs attestations and CSRs) and the certificate object (the certificate last
// replaced, or the device certificate).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace karstd {

constexpr int32_t CHAIN_DEVICE_CERTIFICATE = 0;
constexpr int32_t CERTIFICATE_OBJECT = 5;
// The object that carries the device certificate on the bus (and that attestations name).
constexpr char DEVICE_CERTIFICATE_PATH[] = "/xyz/openbmc_project/certs/karst/device";

// The certificate of index as the secure world gives it (DER, or PEM for the object); needs the
// open session. Throws InternalFailure when it cannot be read.
std::vector<uint8_t> read_certificate(int32_t index);

// The certificate as PEM, whichever form the secure world gave.
std::string certificate_pem(const std::vector<uint8_t> &certificate);

} // namespace karstd
