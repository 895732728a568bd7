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
constexpr int32_t RECORD_PROGRESS = 0;
constexpr int32_t RECORD_END = 1;

struct Record {
    int32_t kind;
    int32_t value;
};

volatile std::sig_atomic_t interrupted = 0;

void on_interrupt(int) {
    interrupted = 1;
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
        _exit(CALL_FAILED);
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
            _exit(state == IMG_UPD_IDLE ? OK : CALL_FAILED);
        }
        ::usleep(POLL_MS * 1000);
    }
}

int terminal_width() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 80;
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

} // namespace

int run_async_update(const AsyncUpdate &update) {
    int fds[2];
    if (::pipe(fds) != 0) {
        fail(CALL_FAILED, "cannot start the update: no pipe");
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        fail(CALL_FAILED, "cannot start the update: no process");
    }
    if (pid == 0) {
        ::close(fds[0]);
        run_update(update, fds[1]);
    }
    ::close(fds[1]);

    struct sigaction action {};
    action.sa_handler = on_interrupt; // no SA_RESTART: poll returns at once
    ::sigaction(SIGINT, &action, nullptr);

    Display display(update.total);
    display.show(0);
    for (;;) {
        pollfd entry{fds[0], POLLIN, 0};
        const int ready = ::poll(&entry, 1, POLL_MS);
        if (interrupted) {
            display.end_line();
            ::close(fds[0]);
            std::fprintf(stderr,
                         "karstctl: stopped watching; the update goes on (process %d). Follow it "
                         "with: karstctl image progress %s\n",
                         static_cast<int>(pid), update.type_name.c_str());
            return INTERRUPTED;
        }
        if (ready <= 0) {
            display.tick();
            continue;
        }
        Record record{};
        const ssize_t n = ::read(fds[0], &record, sizeof record);
        if (n != static_cast<ssize_t>(sizeof record)) {
            ::close(fds[0]);
            display.end_line();
            ::waitpid(pid, nullptr, 0);
            fail(CALL_FAILED, "the update's process ended without a result");
        }
        if (record.kind == RECORD_PROGRESS) {
            display.show(record.value);
            continue;
        }
        ::close(fds[0]);
        ::waitpid(pid, nullptr, 0);
        if (record.value != IMG_UPD_IDLE) {
            display.end_line();
            fail(CALL_FAILED, "the update failed");
        }
        display.show(100);
        display.end_line();
        return OK;
    }
}

} // namespace karstctl
