// SPDX-License-Identifier: Apache-2.0
// karstd: the board's secure-world firmware update, attestation and certificates on the system
// bus, as xyz.openbmc_project.Software.Karst (docs/karstd.md).
#include "attestation_service.hpp"
#include "bus.hpp"
#include "cert_service.hpp"
#include "secure_world.hpp"
#include "update_service.hpp"

#include "karst.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

using namespace karstd;

constexpr char USAGE[] =
    "usage: karstd [--state-dir DIR]\n"
    "Serves the secure world's firmware update, attestation and certificates on the system bus\n"
    "as xyz.openbmc_project.Software.Karst (DBUS_SYSTEM_BUS_ADDRESS names another bus).\n"
    "  --state-dir DIR  where the records of updates are kept (default: $RUNTIME_DIRECTORY,\n"
    "                   else /run/karstd)\n";

struct Options {
    std::string state_dir;
};

Options parse(int argc, char **argv) {
    Options options;
    const char *runtime = std::getenv("RUNTIME_DIRECTORY"); // set by the unit's RuntimeDirectory
    options.state_dir = runtime != nullptr && *runtime != '\0' ? runtime : "/run/karstd";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--state-dir" && i + 1 < argc) {
            options.state_dir = argv[++i];
        } else if (arg == "--version") {
            std::printf("karstd %s\n", karst_version());
            std::exit(0);
        } else {
            std::fputs(USAGE, arg == "--help" ? stdout : stderr);
            std::exit(arg == "--help" ? 0 : 2);
        }
    }
    return options;
}

struct BusUnref {
    void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
struct EventUnref {
    void operator()(sd_event *event) const { sd_event_unref(event); }
};

// The bus connection, served from event; SIGTERM and SIGINT end the loop.
std::unique_ptr<sd_bus, BusUnref> connect(sd_event *event) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    check(sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr), "sd_event_add_signal");
    check(sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr), "sd_event_add_signal");
    sd_bus *bus = nullptr;
    check(sd_bus_open_system(&bus), "connecting to the system bus");
    std::unique_ptr<sd_bus, BusUnref> owned(bus);
    check(sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL), "sd_bus_attach_event");
    check(sd_bus_add_object_manager(bus, nullptr, "/"), "sd_bus_add_object_manager");
    return owned;
}

int run(const Options &options) {
    std::filesystem::create_directories(options.state_dir);
    std::filesystem::permissions(options.state_dir, std::filesystem::perms::owner_all);
    sd_event *raw_event = nullptr;
    check(sd_event_default(&raw_event), "sd_event_default");
    const std::unique_ptr<sd_event, EventUnref> event(raw_event);
    const auto bus = connect(event.get());

    UpdateService updates(bus.get(), event.get(), options.state_dir);
    const SecureWorld secure_world([&updates] { return updates.holder(); });
    AttestationService attestation(bus.get(), secure_world);
    CertService certs(bus.get(), secure_world, options.state_dir);
    updates.restore();
    certs.refresh(); // after a restart during an update: when that update has ended
    updates.on_end([&certs] { certs.refresh(); });
    // The name last: a client that sees it finds every object in place.
    check(sd_bus_request_name(bus.get(), SERVICE, 0), "requesting the bus name");
    return check(sd_event_loop(event.get()), "the event loop");
}

} // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // the library's lines, whole, to the journal
    std::signal(SIGPIPE, SIG_IGN);
    const Options options = parse(argc, argv);
    try {
        return run(options);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "karstd: %s\n", e.what());
        return 1;
    }
}
