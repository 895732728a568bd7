// SPDX-License-Identifier: Apache-2.0
#include "update_service.hpp"

#include "update_record.hpp"
#include "update_worker.hpp"

#include "karst.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace karstd {
namespace {

constexpr char SOFTWARE_ROOT[] = "/xyz/openbmc_project/software/karst";
constexpr char UPDATE[] = "xyz.openbmc_project.Software.Update";
constexpr char VERSION[] = "xyz.openbmc_project.Software.Version";
constexpr char IMMEDIATE[] = "xyz.openbmc_project.Software.ApplyTime.RequestedApplyTimes.Immediate";
constexpr char ON_RESET[] = "xyz.openbmc_project.Software.ApplyTime.RequestedApplyTimes.OnReset";
constexpr uint64_t TICK_US = 200000;     // how often a running update's progress is read
constexpr uint8_t PROGRESS_CEILING = 98; // as the library's poll: 100 only once it succeeded
constexpr size_t VERSION_ROOM = 256;

using TypeObject = UpdateService::TypeObject;

const sd_bus_vtable UPDATE_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("StartUpdate", "hs", SD_BUS_PARAM(Image) SD_BUS_PARAM(ApplyTime), "o",
                             SD_BUS_PARAM(ObjectPath), method<&TypeObject::start_update>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("AllowedApplyTimes", "as", property<&TypeObject::allowed_apply_times>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable VERSION_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Version", "s", property<&TypeObject::version>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Purpose", "s", property<&TypeObject::purpose>, 0,
                    SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

// Both program the device at once; its new firmware runs from the device's next reset, which
// karstd never causes. Staging alone (OnActivationRequest) is not offered.
void check_apply_time(const char *apply_time) {
    if (std::string_view(apply_time) != IMMEDIATE && std::string_view(apply_time) != ON_RESET) {
        throw BusError(error::INVALID_ARGUMENT, std::string("apply time ") + apply_time +
                                                    " is not offered; allowed: " + IMMEDIATE +
                                                    ", " + ON_RESET);
    }
}

// The image must come as a regular file (read from its start) or a pipe, open for reading.
void check_image_fd(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode))) {
        throw BusError(error::INVALID_ARGUMENT, "the image must be a regular file or a pipe");
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) == O_WRONLY || (flags & O_PATH) != 0) {
        throw BusError(error::INVALID_ARGUMENT, "the image's descriptor is not open for reading");
    }
    if (S_ISREG(st.st_mode) && (st.st_size == 0 || static_cast<uint64_t>(st.st_size) > IMAGE_MAX)) {
        throw BusError(error::INVALID_ARGUMENT, "the image is empty or larger than 64 MiB");
    }
}

// A new software object's name below its type: eight random hexadecimal digits.
std::string new_id() {
    uint32_t value = 0;
    if (::getrandom(&value, sizeof value, 0) != sizeof value) {
        throw BusError(error::INTERNAL_FAILURE, "no random number for the update's object");
    }
    char id[16];
    std::snprintf(id, sizeof id, "%08x", value);
    return id;
}

Activation activation_of(RecordState state) {
    switch (state) {
    case RecordState::running:
        return Activation::activating;
    case RecordState::active:
        return Activation::active;
    default:
        return Activation::failed;
    }
}

} // namespace

UpdateService::TypeObject::TypeObject(UpdateService &service, const ImageType &type)
    : service_(service), type_(type), path_(std::string(SOFTWARE_ROOT) + "/" + type.name) {
    update_slot_ = add_interface(service.bus_, path_, UPDATE, UPDATE_VTABLE, this);
    version_slot_ = add_interface(service.bus_, path_, VERSION, VERSION_VTABLE, this);
}

std::vector<std::string> UpdateService::TypeObject::allowed_apply_times() const {
    return {IMMEDIATE, ON_RESET};
}

int UpdateService::TypeObject::start_update(sd_bus_message *m) {
    int fd = -1;
    const char *apply_time = nullptr;
    check(sd_bus_message_read(m, "hs", &fd, &apply_time), "reading the arguments");
    check_apply_time(apply_time);
    check_image_fd(fd);
    service_.check_free(type_.name);
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (copy < 0) {
        throw BusError(error::INTERNAL_FAILURE, "cannot keep the image's descriptor");
    }
    service_.start(*this, copy, Message(sd_bus_message_ref(m)));
    return 1; // answered when the update's process tells how it began
}

UpdateService::UpdateService(sd_bus *bus, sd_event *event, std::string state_dir)
    : bus_(bus), event_(event), state_dir_(std::move(state_dir)) {
    for (size_t i = 0; i < IMAGE_TYPES.size(); ++i) {
        types_[i] = std::make_unique<TypeObject>(*this, IMAGE_TYPES[i]);
    }
}

UpdateService::~UpdateService() {
    if (pending_) {
        ::close(pending_->report_fd);
    }
}

std::string UpdateService::holder() const {
    if (pending_) {
        return types_[pending_->type]->type_.name;
    }
    for (const auto &object : types_) {
        if (object->running_) {
            return object->type_.name;
        }
    }
    return {};
}

void UpdateService::check_free(const char *type) const {
    const std::string running = holder();
    if (running == type) {
        throw BusError(error::UNAVAILABLE, "an update of " + running + " is already running");
    }
    if (!running.empty()) {
        throw BusError(error::UNAVAILABLE,
                       "the " + running + " update holds the secure world; try again after it");
    }
}

size_t UpdateService::index_of(const TypeObject &object) const {
    return static_cast<size_t>(std::find_if(types_.begin(), types_.end(),
                                            [&](const auto &t) { return t.get() == &object; }) -
                               types_.begin());
}

void UpdateService::start(TypeObject &object, int image_fd, Message call) {
    const std::string path = object.path_ + "/" + new_id();
    const UpdateRecord record(state_dir_, object.type_.name);
    const int record_fd = record.create(path);
    int report[2] = {-1, -1};
    sd_event_source *source = nullptr;
    if (record_fd < 0 || ::pipe2(report, O_CLOEXEC) != 0 ||
        sd_event_add_io(event_, &source, report[0], EPOLLIN, on_outcome, this) < 0) {
        for (const int fd : {image_fd, record_fd, report[0], report[1]}) {
            ::close(fd);
        }
        record.remove();
        throw BusError(error::INTERNAL_FAILURE, "cannot record the update in " + state_dir_);
    }
    EventSource watch(source);
    const pid_t pid = start_worker({object.type_, image_fd, record_fd, report[1]});
    ::close(image_fd);
    ::close(record_fd); // the update's process holds the record's lock from now on
    ::close(report[1]);
    if (pid < 0) {
        watch.reset();
        ::close(report[0]);
        record.remove();
        throw BusError(error::INTERNAL_FAILURE, "cannot start the update's process");
    }
    children_.push_back(pid);
    pending_ = Pending{index_of(object), path, std::move(call), report[0], std::move(watch)};
    arm_timer();
}

int UpdateService::on_outcome(sd_event_source *, int fd, uint32_t, void *self) {
    char outcome = 0;
    if (::read(fd, &outcome, 1) != 1) {
        outcome = static_cast<char>(Outcome::failed); // the process ended without a word
    }
    static_cast<UpdateService *>(self)->answer(outcome);
    return 0;
}

void UpdateService::answer(char outcome) {
    Pending p = std::move(*pending_);
    pending_.reset();
    p.source.reset();
    ::close(p.report_fd);
    TypeObject &object = *types_[p.type];
    const UpdateRecord record(state_dir_, object.type_.name);
    const auto kind = static_cast<Outcome>(outcome);
    if (kind == Outcome::started || kind == Outcome::bad_signature) {
        object.latest_.reset();
        const bool started = kind == Outcome::started;
        object.latest_ =
            std::make_unique<SoftwareObject>(bus_, p.path, object.type_.purpose,
                                             started ? Activation::activating : Activation::failed);
        object.running_ = started;
        if (started) {
            sd_bus_reply_method_return(p.call.get(), "o", p.path.c_str());
            return;
        }
        sd_bus_reply_method_errorf(p.call.get(), error::INVALID_SIGNATURE,
                                   "the %s image failed authentication; %s shows Failed",
                                   object.type_.name, p.path.c_str());
        return;
    }
    record.remove();
    if (kind == Outcome::bad_image) {
        sd_bus_reply_method_errorf(p.call.get(), error::INVALID_ARGUMENT,
                                   "no image could be read from the descriptor (nothing, more "
                                   "than 64 MiB, or a pipe silent for 20 s)");
    } else if (kind == Outcome::busy) {
        sd_bus_reply_method_errorf(p.call.get(), error::UNAVAILABLE,
                                   "another program holds the secure world's session");
    } else {
        sd_bus_reply_method_errorf(p.call.get(), error::INTERNAL_FAILURE,
                                   "the %s image could not be given to the secure world",
                                   object.type_.name);
    }
}

int UpdateService::on_tick(sd_event_source *, uint64_t, void *self) {
    static_cast<UpdateService *>(self)->follow();
    return 0;
}

// Reaps the update processes that ended, shows the progress of running updates and the end of
// those whose process let the record go.
void UpdateService::follow() {
    std::erase_if(children_, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
    for (const auto &object : types_) {
        if (!object->running_) {
            continue;
        }
        poll_progress(*object);
        const RecordRead record = UpdateRecord(state_dir_, object->type_.name).read();
        if (record.state == RecordState::running) {
            continue;
        }
        object->running_ = false;
        const bool succeeded = record.state == RecordState::active;
        object->latest_->set_progress(succeeded ? 100 : 0);
        object->latest_->set_state(succeeded ? Activation::active : Activation::failed);
        if (succeeded) {
            read_version(*object);
        }
        if (on_end_) {
            on_end_();
        }
    }
    if (!versions_read_ && holder().empty()) {
        read_versions();
    }
    if (!holder().empty() || !children_.empty()) {
        arm_timer();
    }
}

void UpdateService::poll_progress(TypeObject &object) {
    const int percent = pta20_img_updmsg(staging_word(object.type_), 0);
    if (percent > object.latest_->progress()) {
        object.latest_->set_progress(
            static_cast<uint8_t>(std::min<int>(percent, PROGRESS_CEILING)));
    }
}

// The version the inventory holds for the type, for the type's object and its latest update
// when that succeeded.
void UpdateService::read_version(TypeObject &object) {
    std::array<char, VERSION_ROOM> value{};
    if (pta20_inventory_get(object.type_.inventory_key, value.data(), value.size()) == 0 &&
        object.version_ != value.data()) {
        object.version_ = value.data();
        sd_bus_emit_properties_changed(bus_, object.path_.c_str(), VERSION, "Version", nullptr);
    }
    if (object.latest_ && object.latest_->state() == Activation::active) {
        object.latest_->set_version(object.version_);
    }
}

void UpdateService::arm_timer() {
    if (!timer_) {
        sd_event_source *source = nullptr;
        check(
            sd_event_add_time_relative(event_, &source, CLOCK_MONOTONIC, TICK_US, 0, on_tick, this),
            "sd_event_add_time_relative");
        timer_.reset(source);
        return;
    }
    sd_event_source_set_time_relative(timer_.get(), TICK_US);
    sd_event_source_set_enabled(timer_.get(), SD_EVENT_ONESHOT);
}

void UpdateService::restore() {
    for (const auto &object : types_) {
        const RecordRead record = UpdateRecord(state_dir_, object->type_.name).read();
        if (record.state == RecordState::none || record.path.rfind(object->path_ + "/", 0) != 0 ||
            sd_bus_object_path_is_valid(record.path.c_str()) == 0) {
            continue;
        }
        object->latest_ = std::make_unique<SoftwareObject>(bus_, record.path, object->type_.purpose,
                                                           activation_of(record.state));
        object->running_ = record.state == RecordState::running;
        if (object->running_) {
            poll_progress(*object);
        }
    }
    if (!holder().empty()) {
        arm_timer(); // the versions are read when the update has ended
        return;
    }
    read_versions();
}

void UpdateService::read_versions() {
    for (const auto &object : types_) {
        read_version(*object);
    }
    versions_read_ = true;
}

} // namespace karstd
