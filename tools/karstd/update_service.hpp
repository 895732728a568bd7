// SPDX-License-Identifier: Apache-2.0
// Firmware update: one object per image type, /xyz/openbmc_project/software/karst/<type>, with
// Software.Update (StartUpdate, AllowedApplyTimes) and Software.Version (the version the
// inventory holds for the type). Each StartUpdate makes a software object below it,
// /xyz/openbmc_project/software/karst/<type>/<id>, that shows the update; the latest one per
// type stays until the type's next update.
#pragma once

#include "bus.hpp"
#include "image_types.hpp"
#include "software_object.hpp"

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace karstd {

class UpdateService {
  public:
    UpdateService(sd_bus *bus, sd_event *event, std::string state_dir);
    ~UpdateService();
    UpdateService(const UpdateService &) = delete;
    UpdateService &operator=(const UpdateService &) = delete;

    // Shows the updates that the records of the state directory tell of (running ones are
    // followed again) and reads the types' versions when the secure world is free.
    void restore();

    // Calls done each time an update has ended and the secure world is free again.
    void on_end(std::function<void()> done) { on_end_ = std::move(done); }

    // The type whose update holds the secure world (starting or running), or empty.
    std::string holder() const;

    // One image type's object.
    class TypeObject {
      public:
        TypeObject(UpdateService &service, const ImageType &type);
        int start_update(sd_bus_message *m);
        std::vector<std::string> allowed_apply_times() const;
        std::string version() const { return version_; }
        std::string purpose() const { return type_.purpose; }

      private:
        friend class UpdateService;
        UpdateService &service_;
        ImageType type_;
        std::string path_;
        std::string version_;
        std::unique_ptr<SoftwareObject> latest_;
        bool running_ = false;
        Slot update_slot_, version_slot_;
    };

  private:
    // A StartUpdate waiting for its process's outcome.
    struct Pending {
        size_t type;
        std::string path;
        Message call;
        int report_fd;
        EventSource source;
    };

    // Throws Unavailable while an update (of type or another) holds the secure world.
    void check_free(const char *type) const;
    size_t index_of(const TypeObject &object) const;
    void start(TypeObject &object, int image_fd, Message call);
    static int on_outcome(sd_event_source *source, int fd, uint32_t events, void *self);
    void answer(char outcome);
    static int on_tick(sd_event_source *source, uint64_t usec, void *self);
    void follow();
    void poll_progress(TypeObject &object);
    void read_version(TypeObject &object);
    void read_versions();
    void arm_timer();

    sd_bus *bus_;
    sd_event *event_;
    std::string state_dir_;
    std::array<std::unique_ptr<TypeObject>, IMAGE_TYPES.size()> types_;
    std::optional<Pending> pending_;
    std::vector<pid_t> children_;
    EventSource timer_;
    bool versions_read_ = false;
    std::function<void()> on_end_;
};

} // namespace karstd
