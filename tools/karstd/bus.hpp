// SPDX-License-Identifier: Apache-2.0
// What every object of karstd needs from sd-bus: owners of the bus's handles, the errors the
// interfaces name, and the adapters that turn member functions into vtable entries (methods
// report a BusError as the error it names, anything else as InternalFailure).
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace karstd {

constexpr char SERVICE[] = "xyz.openbmc_project.Software.Karst";

namespace error {
constexpr char INVALID_ARGUMENT[] = "xyz.openbmc_project.Common.Error.InvalidArgument";
constexpr char UNAVAILABLE[] = "xyz.openbmc_project.Common.Error.Unavailable";
constexpr char INTERNAL_FAILURE[] = "xyz.openbmc_project.Common.Error.InternalFailure";
constexpr char INVALID_SIGNATURE[] = "xyz.openbmc_project.Software.Update.Error.InvalidSignature";
constexpr char INVALID_CERTIFICATE[] = "xyz.openbmc_project.Certs.Error.InvalidCertificate";
} // namespace error

// A D-Bus error to answer a method call with: the error's name and a message for people.
class BusError : public std::runtime_error {
  public:
    BusError(const char *name, const std::string &message)
        : std::runtime_error(message), name_(name) {}
    const char *name() const { return name_; }

  private:
    const char *name_;
};

struct SlotUnref {
    void operator()(sd_bus_slot *slot) const { sd_bus_slot_unref(slot); }
};
struct MessageUnref {
    void operator()(sd_bus_message *m) const { sd_bus_message_unref(m); }
};
struct SourceUnref {
    void operator()(sd_event_source *s) const { sd_event_source_disable_unref(s); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
using EventSource = std::unique_ptr<sd_event_source, SourceUnref>;

// Throws InternalFailure naming what failed when an sd-bus call returned a negative errno.
int check(int rc, const char *what);

// Registers vtable for interface at path with owner as its user data; the slot removes it.
Slot add_interface(sd_bus *bus, const std::string &path, const char *interface,
                   const sd_bus_vtable *vtable, void *owner);

// Property values as sd-bus appends them.
int append(sd_bus_message *reply, const std::string &value);
int append(sd_bus_message *reply, uint8_t value);
int append(sd_bus_message *reply, bool value);
int append(sd_bus_message *reply, uint64_t value);
int append(sd_bus_message *reply, const std::vector<std::string> &value);

// Reads a string array argument.
std::vector<std::string> read_strings(sd_bus_message *m);

// Sets error for the call m; internal failures are logged, with the member that met them.
int refuse(sd_bus_message *m, sd_bus_error *error, const char *name, const char *message);

template <typename T> struct MemberOf;
template <typename C, typename R> struct MemberOf<R (C::*)() const> { using Class = C; };
template <typename C> struct MemberOf<int (C::*)(sd_bus_message *)> { using Class = C; };

// A property getter from a const member function returning the value.
template <auto Get>
int property(sd_bus *, const char *, const char *, const char *, sd_bus_message *reply, void *owner,
             sd_bus_error *) {
    using C = typename MemberOf<decltype(Get)>::Class;
    return append(reply, (static_cast<const C *>(owner)->*Get)());
}

// A method handler from a member function taking the call and returning sd-bus's result (1 when
// the answer is sent later).
template <auto Call> int method(sd_bus_message *m, void *owner, sd_bus_error *error) {
    using C = typename MemberOf<decltype(Call)>::Class;
    try {
        return (static_cast<C *>(owner)->*Call)(m);
    } catch (const BusError &e) {
        return refuse(m, error, e.name(), e.what());
    } catch (const std::exception &e) {
        return refuse(m, error, error::INTERNAL_FAILURE, e.what());
    }
}

} // namespace karstd
