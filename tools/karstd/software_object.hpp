// SPDX-License-Identifier: Apache-2.0
// A software object: one update of an image type, with its Activation, ActivationProgress and
// Version, all answered from what the daemon last learnt (never from the secure world).
#pragma once

#include "bus.hpp"

#include <string>

namespace karstd {

enum class Activation { activating, active, failed };

class SoftwareObject {
  public:
    // Puts the object on the bus and announces it.
    SoftwareObject(sd_bus *bus, std::string path, const char *purpose, Activation state);
    // Announces its removal.
    ~SoftwareObject();
    SoftwareObject(const SoftwareObject &) = delete;
    SoftwareObject &operator=(const SoftwareObject &) = delete;

    const std::string &path() const { return path_; }
    Activation state() const { return state_; }
    uint8_t progress() const { return progress_; }

    // Changes are announced with PropertiesChanged.
    void set_state(Activation state);
    void set_progress(uint8_t percent);
    void set_version(const std::string &version);

    std::string activation() const;
    std::string requested_activation() const;
    std::string version() const { return version_; }
    std::string purpose() const { return purpose_; }

  private:
    sd_bus *bus_;
    std::string path_;
    std::string purpose_;
    Activation state_;
    uint8_t progress_ = 0;
    std::string version_;
    Slot activation_slot_, progress_slot_, version_slot_;
};

} // namespace karstd
