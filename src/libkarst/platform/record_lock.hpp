// SPDX-License-Identifier: Apache-2.0
// Whole-file fcntl record locks for the key=value files shared between processes.
//
// Record locks belong to a process: two threads of one process would both be granted a write
// lock, and closing any descriptor of the file drops every lock the process holds on it. So the
// routines that lock these files also hold process_file_mutex() from before they open the file
// until after they close it; between processes the record lock does the ordering.
#pragma once

#include <mutex>

namespace karst::config {

std::mutex &process_file_mutex();

class RecordLock {
  public:
    RecordLock() = default;
    RecordLock(const RecordLock &) = delete;
    RecordLock &operator=(const RecordLock &) = delete;
    ~RecordLock() { release(); }

    // Waits for a lock of the type (F_RDLCK or F_WRLCK) over the whole file; false on failure.
    bool acquire(int fd, short type);
    // Unlocks; false when that fails (the lock then goes with the descriptor).
    bool release();

  private:
    int fd_ = -1;
};

} // namespace karst::config
