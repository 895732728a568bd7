// SPDX-License-Identifier: Apache-2.0
#include "update_worker.hpp"

#include "secure_world.hpp"
#include "update_record.hpp"

#include "karst.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace karstd {
namespace {

// How long a pipe may stay silent before the image counts as not delivered: shorter than a
// D-Bus client's default wait for the answer.
constexpr int PIPE_SILENCE_MS = 20000;
constexpr size_t READ_STEP = size_t{1} << 20;

// Reads the image: a regular file whole from its start, a pipe to its end. Empty when there
// is none, it is larger than any image, or the pipe stalls.
std::vector<uint8_t> read_image(int fd) {
    struct stat st {};
    const bool regular = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    std::vector<uint8_t> image;
    for (off_t offset = 0;;) {
        pollfd entry{fd, POLLIN, 0};
        if (!regular && ::poll(&entry, 1, PIPE_SILENCE_MS) <= 0) {
            return {};
        }
        image.resize(static_cast<size_t>(offset) + READ_STEP);
        const ssize_t n = regular ? ::pread(fd, image.data() + offset, READ_STEP, offset)
                                  : ::read(fd, image.data() + offset, READ_STEP);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return {};
        }
        offset += n;
        image.resize(static_cast<size_t>(offset));
        if (n == 0) {
            return image;
        }
        if (image.size() > IMAGE_MAX) {
            return {};
        }
    }
}

void report(int fd, Outcome outcome) {
    const char byte = static_cast<char>(outcome);
    (void)!::write(fd, &byte, 1);
    ::close(fd);
}

// Closes every descriptor but standard input, output and error and those in keep, so that the
// update's process holds nothing of the daemon (above all not its bus connection, whose name a
// restarted daemon must be able to take).
void close_all_but(std::array<int, 3> keep) {
    std::sort(keep.begin(), keep.end());
    unsigned from = STDERR_FILENO + 1;
    for (const int fd : keep) {
        const auto k = static_cast<unsigned>(fd);
        if (k > from) {
            ::close_range(from, k - 1, 0);
        }
        from = std::max(from, k + 1);
    }
    ::close_range(from, ~0u, 0);
}

// Out of the daemon's process group, deaf to the signals that stop a service or a terminal.
void detach() {
    ::setsid();
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
        std::signal(signal, SIG_IGN);
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

// The update itself, in the update's process; its exit status.
int run(const UpdateJob &job) {
    std::vector<uint8_t> image = read_image(job.image_fd);
    ::close(job.image_fd);
    if (image.empty()) {
        report(job.report_fd, Outcome::bad_image);
        return 1;
    }
    Session session;
    if (!session.open()) {
        report(job.report_fd, session.busy() ? Outcome::busy : Outcome::failed);
        return 1;
    }
    const uint32_t word = staging_word(job.type);
    const auto size = static_cast<uint32_t>(image.size());
    if (pta_invoke_fw_auth(PTA_DALU_CMD_FW_AUTH, word, IMG_SRC_BUFFER, image.data(), size) != 0) {
        report(job.report_fd, Outcome::bad_signature);
        return 1;
    }
    if (pta_invoke_fw_upload(PTA_DALU_CMD_FW_UPLOAD, word, IMG_SRC_BUFFER, image.data(), size) !=
        0) {
        report(job.report_fd, Outcome::failed);
        return 1;
    }
    pta20_img_updmsg(word, 1); // the progress file starts afresh
    report(job.report_fd, Outcome::started);
    const int rc =
        pta_invoke_fw_update(PTA_DALU_CMD_FW_UPDATE, word, IMG_SRC_BUFFER, image.data(), size);
    UpdateRecord::finish(job.record_fd, rc == 0);
    return rc == 0 ? 0 : 1;
}

} // namespace

pid_t start_worker(const UpdateJob &job) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) {
        return pid;
    }
    close_all_but({job.image_fd, job.record_fd, job.report_fd});
    detach();
    const int status = run(job);
    std::fflush(nullptr);
    _exit(status);
}

} // namespace karstd
