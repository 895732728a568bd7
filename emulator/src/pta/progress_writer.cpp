// SPDX-License-Identifier: Apache-2.0
#include "progress_writer.hpp"

#include <chrono>
#include <cinttypes>
#include <cstdio>

namespace karst::emu {

ProgressWriter::ProgressWriter(std::string path, uint64_t total)
    : path_(std::move(path)), total_(total) {
    write_line(0);
    thread_ = std::thread([this] { run(); });
}

ProgressWriter::~ProgressWriter() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
    write_line(written_.load(std::memory_order_relaxed));
}

void ProgressWriter::run() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(100), [this] { return stop_; })) {
        write_line(written_.load(std::memory_order_relaxed));
    }
}

// The whole line is written to a new file that then replaces the old one, so a reader sees the
// previous line or this one, never a half-written one.
void ProgressWriter::write_line(uint64_t written) const {
    const uint64_t percent = total_ == 0 ? 100 : written * 100 / total_;
    const std::string tmp = path_ + ".part";
    std::FILE *f = std::fopen(tmp.c_str(), "we");
    if (f == nullptr) {
        return;
    }
    std::fprintf(f, "written: %" PRIu64 ", total: %" PRIu64 ", %" PRIu64 "%%\n", written, total_,
                 percent);
    if (std::fclose(f) == 0) {
        std::rename(tmp.c_str(), path_.c_str());
    }
}

} // namespace karst::emu
