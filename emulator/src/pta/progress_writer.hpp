// SPDX-License-Identifier: Apache-2.0
// The component that reports an update's progress: while a device is programmed, a thread of
// its own rewrites "/tmp/fw-update-<name>.out" (under the run root) with the line
// "written: N, total: M, P%" every tenth of a second, and once more at the end.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace karst::emu {

class ProgressWriter {
  public:
    // path: the progress file; total: the bytes to program.
    ProgressWriter(std::string path, uint64_t total);
    ~ProgressWriter(); // writes the last line and stops the thread
    ProgressWriter(const ProgressWriter &) = delete;
    ProgressWriter &operator=(const ProgressWriter &) = delete;

    void advance(uint64_t written) { written_.store(written, std::memory_order_relaxed); }

  private:
    void write_line(uint64_t written) const;
    void run();

    std::string path_;
    uint64_t total_;
    std::atomic<uint64_t> written_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false; // under mutex_
    std::thread thread_;
};

} // namespace karst::emu
