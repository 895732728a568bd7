#include "image_async.hpp"

#include "common.hpp"
#include "progress_bar.hpp"

#include "karst.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
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
constexpr int32_t RECORD_PROGRESS = 0;
constexpr int32_t RECORD_END = 1;

struct Record {
    int32_t kind;
    int32_t value;
};

volatile std::sig_atomic_t g_interrupted = 0;

void on_interrupt(int) {
    g_interrupted = 1;
}

void send(int fd, Record record) {
    // The watcher may be gone (Ctrl-C): then nobody reads, and the update goes on regardless.
    const ssize_t n = ::write(fd, &record, sizeof record);
    (void)n;
}

// The child: starts the update, reports its progress and its end, and exits when it ends.
[[noreturn]] void run_update(const AsyncUpdate &update, int fd) {
    ::setsid();
    std::signal(SIGPIPE, SIG_IGN);
    img_update_ctx ctx{};
    ctx.img = update.img_id;
    ctx.flags = update.flags;
    ctx.arg = update.arg;
    ctx.size = update.size;
    if (pta20_img_update_async(&ctx) != 0) {
        send(fd, {RECORD_END, -1});
        std::fflush(stdout);
        _exit(Status::call_failed);
    }
    int last = -1;
    for (;;) {
        const int percent = pta20_img_updprogress(&ctx);
        const int32_t state = std::atomic_ref<int32_t>(ctx.state).load();
        if (percent != last) {
            send(fd, {RECORD_PROGRESS, percent});
            last = percent;
        }
        if (state != IMG_UPD_QUEUED && state != IMG_UPD_RUNNING) {
            send(fd, {RECORD_END, state});
            std::fflush(stdout);
            _exit(state == IMG_UPD_IDLE ? Status::ok : Status::call_failed);
        }
        ::usleep(POLL_US);
    }
}

int terminal_width() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return DEFAULT_COLUMNS;
}

class Display {
  public:
    explicit Display(uint64_t total) : terminal_(::isatty(STDOUT_FILENO) == 1) {
        progress_.total = total;
    }
    void show(int percent) {
        const bool changed = percent != progress_.percent || !shown_;
        progress_.percent = percent;
        progress_.written = progress_.total * static_cast<uint64_t>(percent) / 100;
        progress_.elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
        if (terminal_) {
            std::fputs(render_bar(progress_, terminal_width()).c_str(), stdout);
        } else if (changed) {
            std::fputs(render_line(progress_).c_str(), stdout);
        }
        shown_ = true;
        std::fflush(stdout);
    }
    void tick() { show(progress_.percent); }
    void end_line() {
        if (terminal_ && shown_) {
            std::fputs("\n", stdout);
            std::fflush(stdout);
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

// Starts the update in a process of its own.
Child start_update(const AsyncUpdate &update) {
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
        run_update(update, fds[1]);
    }
    ::close(fds[1]);
    return {pid, fds[0]};
}

// Ctrl-C ends the watching, not the update.
void watch_for_interrupt() {
    struct sigaction action {};
    action.sa_handler = on_interrupt; // no SA_RESTART: poll returns at once
    ::sigaction(SIGINT, &action, nullptr);
}

int stop_watching(Display &display, const Child &child, const AsyncUpdate &update) {
    display.end_line();
    ::close(child.fd);
    std::fprintf(stderr,
                 "karstctl: stopped watching; the update goes on (process %d). Follow it "
                 "with: karstctl image progress %s\n",
                 static_cast<int>(child.pid), update.type_name.c_str());
    return Status::interrupted;
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

// The update ended in state.
int finish(Display &display, const Child &child, int32_t state) {
    ::close(child.fd);
    ::waitpid(child.pid, nullptr, 0);
    if (state != IMG_UPD_IDLE) {
        display.end_line();
        fail(Status::call_failed, "the update failed");
    }
    display.show(100);
    display.end_line();
    return Status::ok;
}

} // namespace

int run_async_update(const AsyncUpdate &update) {
    const Child child = start_update(update);
    watch_for_interrupt();
    Display display(update.total);
    display.show(0);
    for (;;) {
        pollfd entry{child.fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, POLL_MS);
        if (g_interrupted) {
            return stop_watching(display, child, update);
        }
        if (ready <= 0) {
            display.tick();
            continue;
        }
        const Record record = receive(display, child);
        if (record.kind != RECORD_PROGRESS) {
            return finish(display, child, record.value);
        }
        display.show(record.value);
    }
}

} // namespace karstctl
