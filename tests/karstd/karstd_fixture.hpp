// SPDX-License-Identifier: Apache-2.0
// karstd as it runs on a controller: a private dbus-daemon with the project's policy file (its
// group set to "nogroup"), karstd on it against the emulator in the test's run root, and calls
// made with sd-bus as a client would make them.
#pragma once

#include "support/test_env.hpp"

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

namespace karst::test {

constexpr char KARSTD_BUS_NAME[] = "xyz.openbmc_project.Software.Karst";
constexpr char SOFTWARE[] = "/xyz/openbmc_project/software/karst/";
constexpr char ACTIVATION[] = "xyz.openbmc_project.Software.Activation";
constexpr char PROGRESS[] = "xyz.openbmc_project.Software.ActivationProgress";
constexpr char IMMEDIATE[] = "xyz.openbmc_project.Software.ApplyTime.RequestedApplyTimes.Immediate";

// A method call's result: the reply, or the error's name.
struct Call {
    sd_bus_message *reply = nullptr;
    std::string error;
    Call() = default;
    Call(Call &&other) noexcept : reply(other.reply), error(std::move(other.error)) {
        other.reply = nullptr;
    }
    Call &operator=(Call &&) = delete;
    ~Call() { sd_bus_message_unref(reply); }
};

class KarstdTest : public KarstTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts karstd (again); false when it did not take its name.
    bool start_daemon();
    void stop_daemon();

    // A method call on karstd, with sd-bus's argument types and values.
    Call call(const std::string &path, const char *interface, const char *member, const char *types,
              ...);
    std::string text(const std::string &path, const char *interface, const char *property);
    int progress(const std::string &path);

    // StartUpdate of type with the image at descriptor fd.
    Call start_update(const char *type, int fd, const char *apply_time = IMMEDIATE);
    // The path of the type's latest update, from karstd's record of it.
    std::string recorded_path(const char *type);
    // Polls the update at path until it leaves Activating: its Activation's last word
    // ("Active", "Failed"), and in seen every percentage it showed on the way.
    std::string wait_end(const std::string &path, std::vector<int> *seen = nullptr);
    // Waits until every update of the state directory has ended, and karstd shows it.
    bool updates_ended();

    sd_bus *bus() const { return bus_; }
    const std::string &address() const { return address_; }
    std::string state_dir() const { return path("/run/karstd"); }

  private:
    int bus_pid_ = -1;
    int daemon_pid_ = -1;
    std::string address_;
    sd_bus *bus_ = nullptr;
};

// Connects to the bus at address as a client; null when it cannot.
sd_bus *connect_bus(const std::string &address);

// Runs a command line with /bin/sh and returns its standard output (empty when it failed).
std::string output_of(const std::string &command_line);

} // namespace karst::test
