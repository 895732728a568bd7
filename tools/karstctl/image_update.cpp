// SPDX-License-Identifier: Apache-2.0
#include "image_update.hpp"

#include "common.hpp"
#include "progress_bar.hpp"
#include "tee_failure.hpp"

#include "karst.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace karstctl {

namespace {

constexpr int POLL_MS = 100;
constexpr useconds_t POLL_US = POLL_MS * 1000;
// Columns of a terminal that does not tell its width.
constexpr int DEFAULT_COLUMNS = 80;

// What the update's process reports on its pipe.
enum class Kind : int32_t { started, progress, end };
struct Record {
    Kind kind;
    int32_t value;   // progress: the percentage; end: the context's state
    uint32_t code;   // end: the code of the TEE call that failed, or 0
    uint32_t origin; // end: its origin, or 0
};

volatile std::sig_atomic_t g_interrupted = 0;

void on_interrupt(int) {
    g_interrupted = 1;
}

void send(int fd, Record record) {
    // The watcher may be gone (Ctrl-C, or a started update): the update goes on regardless.
    if (fd >= 0) {
        const ssize_t n = ::write(fd, &record, sizeof record);
        (void)n;
    }
}

[[noreturn]] void end_child(int fd, int32_t state) {
    const std::optional<TeeFailure> failure = last_tee_failure();
    send(fd, {Kind::end, state, failure ? failure->code : 0u,
              failure && failure->origin ? *failure->origin : 0u});
    std::fflush(stdout);
    _exit(state == IMG_UPD_IDLE ? Status::ok : Status::call_failed);
}

// From now on the process's messages are discarded and it holds none of the caller's files, so
// that a caller reading karstctl's output is not kept waiting for the update's end.
void leave_caller() {
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        std::fflush(nullptr);
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::close(null);
    }
}

// The update's process: starts the update, reports its start, progress and end, and exits when
// it ends. The library's messages go to standard error, as in karstctl.
[[noreturn]] void run_update(const UpdateJob &job, int fd, bool detached) {
    ::setsid();
    std::signal(SIGPIPE, SIG_IGN);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // its lines in order with the progress
    forget_tee_failure();
    img_update_ctx ctx{};
    ctx.img = job.img_id;
    ctx.flags = job.flags;
    ctx.arg = job.arg;
    ctx.size = job.size;
    if (pta20_img_update_async(&ctx) != 0) {
        end_child(fd, -1);
    }
    if (detached) {
        leave_caller();
    }
    send(fd, {Kind::started, 0, 0, 0});
    if (detached) {
        ::close(fd);
        fd = -1;
    }
    for (int last = 0;;) {
        const int percent = pta20_img_updprogress(&ctx);
        const int32_t state = std::atomic_ref<int32_t>(ctx.state).load();
        if (percent != last) {
            send(fd, {Kind::progress, percent, 0, 0});
            last = percent;
        }
        if (state != IMG_UPD_QUEUED && state != IMG_UPD_RUNNING) {
            end_child(fd, state);
        }
        ::usleep(POLL_US);
    }
}

int terminal_width() {
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return DEFAULT_COLUMNS;
}

// The progress on standard error: a bar redrawn in place on a terminal, a line per new
// percentage otherwise.
class Display {
  public:
    explicit Display(uint64_t total) : terminal_(::isatty(STDERR_FILENO) == 1) {
        progress_.total = total;
    }
    void show(int percent) {
        const bool changed = percent != progress_.percent || !shown_;
        progress_.percent = percent;
        progress_.written = progress_.total * static_cast<uint64_t>(percent) / 100;
        progress_.elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
        if (terminal_) {
            std::fputs(render_bar(progress_, terminal_width()).c_str(), stderr);
        } else if (changed) {
            std::fputs(render_line(progress_).c_str(), stderr);
        }
        shown_ = true;
    }
    void tick() {
        if (shown_) {
            show(progress_.percent);
        }
    }
    void end_line() {
        if (terminal_ && shown_) {
            std::fputs("\n", stderr);
        }
    }

  private:
    using Clock = std::chrono::steady_clock;
    bool terminal_;
    bool shown_ = false;
    Progress progress_;
    Clock::time_point start_ = Clock::now();
};

// The update's process and the reading end of the pipe it reports on.
struct Child {
    pid_t pid;
    int fd;
};

Child start_child(const UpdateJob &job, bool detached) {
    int fds[2];
    if (::pipe(fds) != 0) {
        fail(Status::call_failed, "cannot start the update: no pipe");
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        fail(Status::call_failed, "cannot start the update: no process");
    }
    if (pid == 0) {
        ::close(fds[0]);
        run_update(job, fds[1], detached);
    }
    ::close(fds[1]);
    return {pid, fds[0]};
}

// The next record from the update's process; fails when the process ended without one.
Record receive(Display &display, const Child &child) {
    Record record{};
    const ssize_t n = ::read(child.fd, &record, sizeof record);
    if (n != static_cast<ssize_t>(sizeof record)) {
        ::close(child.fd);
        display.end_line();
        ::waitpid(child.pid, nullptr, 0);
        fail(Status::call_failed, "the update's process ended without a result");
    }
    return record;
}

// The update ended as record tells (started: after it had started).
int finish(Display &display, const Child &child, const Record &record, bool started) {
    ::close(child.fd);
    ::waitpid(child.pid, nullptr, 0);
    if (record.value != IMG_UPD_IDLE) {
        display.end_line();
        std::string reason;
        if (record.code != 0) {
            reason = ": " + describe_code(record.code) + " from " + describe_origin(record.origin);
        }
        fail(Status::call_failed,
             (started ? "the update failed" : "the update did not start") + reason);
    }
    display.show(100);
    display.end_line();
    return Status::ok;
}

// Ctrl-C ends the watching, not the update.
void watch_for_interrupt() {
    struct sigaction action {};
    action.sa_handler = on_interrupt; // no SA_RESTART: poll returns at once
    ::sigaction(SIGINT, &action, nullptr);
}

// "the bios update goes on in process 42; follow it with: karstctl image progress bios"
std::string follow_hint(const Child &child, const UpdateJob &job) {
    return "the " + job.type_name + " update goes on in process " + std::to_string(child.pid) +
           "; follow it with: karstctl image progress " + job.type_name;
}

} // namespace

int watch_update(const UpdateJob &job) {
    const Child child = start_child(job, false);
    watch_for_interrupt();
    Display display(job.total);
    bool started = false;
    for (;;) {
        pollfd entry{child.fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, POLL_MS);
        if (g_interrupted) {
            display.end_line();
            ::close(child.fd);
            std::fprintf(stderr, "karstctl: stopped watching; %s\n",
                         follow_hint(child, job).c_str());
            return Status::stopped_waiting;
        }
        if (ready <= 0) {
            display.tick();
            continue;
        }
        const Record record = receive(display, child);
        if (record.kind == Kind::end) {
            return finish(display, child, record, started);
        }
        started = true;
        display.show(record.value);
    }
}

int start_update(const UpdateJob &job) {
    const Child child = start_child(job, true);
    Display display(job.total);
    const Record record = receive(display, child);
    if (record.kind == Kind::end) {
        return finish(display, child, record, false);
    }
    ::close(child.fd);
    std::fprintf(stderr, "karstctl: %s\n", follow_hint(child, job).c_str());
    return Status::ok;
}

} // namespace karstctl
