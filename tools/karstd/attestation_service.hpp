// SPDX-License-Identifier: Apache-2.0
// Attestation: /xyz/openbmc_project/ComponentIntegrity/karst with ComponentIntegrity and
// MeasurementSet. SPDMGetSignedMeasurements is answered from the library's attestation dump:
// the 66,560-byte result (the evidence block, the statement naming the nonce, the device key's
// signature over both) in base64, with the device key as PEM.
#pragma once

#include "bus.hpp"
#include "secure_world.hpp"

namespace karstd {

class AttestationService {
  public:
    AttestationService(sd_bus *bus, const SecureWorld &secure_world);

    int signed_measurements(sd_bus_message *m);
    bool enabled() const { return true; }
    std::string type() const;
    std::string type_version() const;
    uint64_t last_updated() const { return last_updated_; }

  private:
    sd_bus *bus_;
    const SecureWorld &secure_world_;
    uint64_t last_updated_ = 0; // milliseconds since the epoch of the last signed measurements
    Slot integrity_slot_, measurements_slot_;
};

// A nonce the library takes: 1 to 64 letters, digits, '-' or '_'.
bool nonce_ok(const std::string &nonce);

} // namespace karstd
