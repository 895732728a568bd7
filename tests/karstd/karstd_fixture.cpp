// SPDX-License-Identifier: Apache-2.0
#include "karstd/karstd_fixture.hpp"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <regex>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace karst::test {
namespace {

using namespace std::chrono_literals;

// A slow programming rate, so that a 1 MiB image takes two seconds and shows its progress.
constexpr char PROGRAM_RATE[] = "524288";

// The bus: a system bus's defaults (method calls denied unless a policy allows them), anyone may
// connect, and the project's policy.
std::string bus_config(const std::string &root) {
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=)" +
           root + R"(/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
<allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
<allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>
<include>)" +
           root + "/karstd.conf</include></busconfig>\n";
}

[[noreturn]] void exec_logged(const std::string &log, std::vector<std::string> words) {
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

} // namespace

sd_bus *connect_bus(const std::string &address) {
    sd_bus *bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

std::string output_of(const std::string &command_line) {
    FILE *pipe = popen(command_line.c_str(), "r");
    std::string out;
    char chunk[4096];
    for (size_t n = 0; pipe != nullptr && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
        out.append(chunk, n);
    }
    return pipe != nullptr && pclose(pipe) == 0 ? out : std::string();
}

void KarstdTest::SetUp() {
    KarstTest::SetUp();
    chmod(root().c_str(), 0755); // a client of another user reaches the bus
    const std::string policy = std::regex_replace(
        read_file(KARSTD_POLICY), std::regex("group=\"" KARSTD_GROUP "\""), "group=\"nogroup\"");
    write_file(path("/karstd.conf"), policy);
    write_file(path("/bus.conf"), bus_config(root()));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    bus_pid_ = fork();
    if (bus_pid_ == 0) {
        dup2(ends[1], 3);
        exec_logged(path("/bus.log"), {"dbus-daemon", "--config-file=" + path("/bus.conf"),
                                       "--nofork", "--print-address=3"});
    }
    close(ends[1]);
    char line[512] = {};
    const ssize_t n = read(ends[0], line, sizeof line - 1);
    close(ends[0]);
    if (n <= 0) {
        GTEST_SKIP() << "dbus-daemon cannot start here: " << read_file(path("/bus.log"));
    }
    address_ = std::string(line, static_cast<size_t>(n));
    address_.erase(address_.find_last_not_of('\n') + 1);
    bus_ = connect_bus(address_);
    ASSERT_NE(bus_, nullptr);
    ASSERT_TRUE(start_daemon()) << read_file(path("/karstd.log"));
}

void KarstdTest::TearDown() {
    EXPECT_TRUE(updates_ended());
    stop_daemon();
    bus_ = sd_bus_flush_close_unref(bus_);
    if (bus_pid_ > 0) {
        kill(bus_pid_, SIGTERM);
        waitpid(bus_pid_, nullptr, 0);
    }
    if (HasFailure()) {
        std::cerr << "karstd's log:\n" << read_file(path("/karstd.log"));
    }
    KarstTest::TearDown();
}

bool KarstdTest::start_daemon() {
    daemon_pid_ = fork();
    if (daemon_pid_ == 0) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
        setenv("KARST_EMU_PROGRAM_RATE", PROGRAM_RATE, 1);
        exec_logged(path("/karstd.log"), {KARSTD_PROGRAM, "--state-dir", state_dir()});
    }
    for (auto give_up = std::chrono::steady_clock::now() + 10s;
         std::chrono::steady_clock::now() < give_up; std::this_thread::sleep_for(20ms)) {
        // The name's owner must be this daemon: the bus may not yet have seen that a stopped one
        // has gone, and a call to the name would then be lost.
        sd_bus_message *reply = nullptr;
        uint32_t owner = 0;
        if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetConnectionUnixProcessID", nullptr,
                               &reply, "s", KARSTD_BUS_NAME) >= 0) {
            sd_bus_message_read(reply, "u", &owner);
        }
        sd_bus_message_unref(reply);
        if (owner == static_cast<uint32_t>(daemon_pid_)) {
            return true;
        }
        if (waitpid(daemon_pid_, nullptr, WNOHANG) != 0) {
            break;
        }
    }
    return false;
}

void KarstdTest::stop_daemon() {
    if (daemon_pid_ > 0) {
        kill(daemon_pid_, SIGTERM);
        waitpid(daemon_pid_, nullptr, 0);
    }
    daemon_pid_ = -1;
}

Call KarstdTest::call(const std::string &path, const char *interface, const char *member,
                      const char *types, ...) {
    Call result;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    va_list args;
    va_start(args, types);
    const int rc = sd_bus_call_methodv(bus_, KARSTD_BUS_NAME, path.c_str(), interface, member,
                                       &error, &result.reply, types, args);
    va_end(args);
    if (rc < 0) {
        result.error = error.name != nullptr ? error.name : "(no error name)";
    }
    sd_bus_error_free(&error);
    return result;
}

std::string KarstdTest::text(const std::string &path, const char *interface, const char *property) {
    char *value = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::string result;
    if (sd_bus_get_property_string(bus_, KARSTD_BUS_NAME, path.c_str(), interface, property, &error,
                                   &value) >= 0) {
        result = value;
    } else {
        result = std::string("error: ") + (error.name != nullptr ? error.name : "");
    }
    free(value);
    sd_bus_error_free(&error);
    return result;
}

int KarstdTest::progress(const std::string &path) {
    uint8_t percent = 0;
    return sd_bus_get_property_trivial(bus_, KARSTD_BUS_NAME, path.c_str(), PROGRESS, "Progress",
                                       nullptr, 'y', &percent) >= 0
               ? percent
               : -1;
}

Call KarstdTest::start_update(const char *type, int fd, const char *apply_time) {
    return call(SOFTWARE + std::string(type), "xyz.openbmc_project.Software.Update", "StartUpdate",
                "hs", fd, apply_time);
}

std::string KarstdTest::recorded_path(const char *type) {
    std::string update;
    for (auto give_up = std::chrono::steady_clock::now() + 30s;
         std::chrono::steady_clock::now() < give_up; std::this_thread::sleep_for(20ms)) {
        const std::string record = read_file(state_dir() + "/" + type + ".update");
        update = record.substr(std::min<size_t>(5, record.size()), record.find('\n') - 5);
        if (!update.empty() && !text(update, ACTIVATION, "Activation").starts_with("error")) {
            break; // the record ("path=...") and its object are there
        }
    }
    return update;
}

std::string KarstdTest::wait_end(const std::string &path, std::vector<int> *seen) {
    std::string activation;
    for (auto give_up = std::chrono::steady_clock::now() + 60s;
         std::chrono::steady_clock::now() < give_up; std::this_thread::sleep_for(20ms)) {
        activation = text(path, ACTIVATION, "Activation"); // karstd sets it after the progress
        const int percent = progress(path);
        if (seen != nullptr && (seen->empty() || seen->back() != percent)) {
            seen->push_back(percent);
        }
        if (!activation.ends_with(".Activating")) {
            break;
        }
    }
    return activation.substr(activation.rfind('.') + 1);
}

bool KarstdTest::updates_ended() {
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(state_dir(), ec)) {
        const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        bool free = false;
        for (int tries = 0; fd >= 0 && !free && tries < 3000; ++tries) {
            free = flock(fd, LOCK_SH | LOCK_NB) == 0;
            std::this_thread::sleep_for(free ? 0ms : 20ms);
        }
        close(fd);
        const std::string record = read_file(entry.path());
        if ((fd >= 0 && !free) ||
            (record.starts_with("path=") && daemon_pid_ > 0 &&
             wait_end(record.substr(5, record.find('\n') - 5)) == "Activating")) {
            return false; // the update's process, or karstd's view of it, has not ended
        }
    }
    return true;
}

} // namespace karst::test
