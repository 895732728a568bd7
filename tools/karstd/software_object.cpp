// SPDX-License-Identifier: Apache-2.0
#include "software_object.hpp"

namespace karstd {
namespace {

constexpr char ACTIVATION[] = "xyz.openbmc_project.Software.Activation";
constexpr char PROGRESS[] = "xyz.openbmc_project.Software.ActivationProgress";
constexpr char VERSION[] = "xyz.openbmc_project.Software.Version";
constexpr auto CHANGES = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;

const sd_bus_vtable ACTIVATION_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Activation", "s", property<&SoftwareObject::activation>, 0, CHANGES),
    SD_BUS_PROPERTY("RequestedActivation", "s", property<&SoftwareObject::requested_activation>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable PROGRESS_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Progress", "y", property<&SoftwareObject::progress>, 0, CHANGES),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable VERSION_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Version", "s", property<&SoftwareObject::version>, 0, CHANGES),
    SD_BUS_PROPERTY("Purpose", "s", property<&SoftwareObject::purpose>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

} // namespace

SoftwareObject::SoftwareObject(sd_bus *bus, std::string path, const char *purpose, Activation state)
    : bus_(bus), path_(std::move(path)), purpose_(purpose), state_(state),
      progress_(state == Activation::active ? 100 : 0) {
    activation_slot_ = add_interface(bus_, path_, ACTIVATION, ACTIVATION_VTABLE, this);
    progress_slot_ = add_interface(bus_, path_, PROGRESS, PROGRESS_VTABLE, this);
    version_slot_ = add_interface(bus_, path_, VERSION, VERSION_VTABLE, this);
    sd_bus_emit_object_added(bus_, path_.c_str());
}

SoftwareObject::~SoftwareObject() {
    sd_bus_emit_object_removed(bus_, path_.c_str());
}

void SoftwareObject::set_state(Activation state) {
    if (state != state_) {
        state_ = state;
        sd_bus_emit_properties_changed(bus_, path_.c_str(), ACTIVATION, "Activation", nullptr);
    }
}

void SoftwareObject::set_progress(uint8_t percent) {
    if (percent != progress_) {
        progress_ = percent;
        sd_bus_emit_properties_changed(bus_, path_.c_str(), PROGRESS, "Progress", nullptr);
    }
}

void SoftwareObject::set_version(const std::string &version) {
    if (version != version_) {
        version_ = version;
        sd_bus_emit_properties_changed(bus_, path_.c_str(), VERSION, "Version", nullptr);
    }
}

std::string SoftwareObject::activation() const {
    switch (state_) {
    case Activation::activating:
        return "xyz.openbmc_project.Software.Activation.Activations.Activating";
    case Activation::active:
        return "xyz.openbmc_project.Software.Activation.Activations.Active";
    default:
        return "xyz.openbmc_project.Software.Activation.Activations.Failed";
    }
}

std::string SoftwareObject::requested_activation() const {
    return "xyz.openbmc_project.Software.Activation.RequestedActivations.Active";
}

} // namespace karstd
