// SPDX-License-Identifier: Apache-2.0
// The record of a type's latest update in karstd's state directory, "<dir>/<type>.update": the
// software object's path, then "result=Active" or "result=Failed" once the update has ended.
// The update's process holds a lock on the record while it runs, so a daemon started anew finds
// a running update by the lock, and a finished one by its result. A record without a result and
// without a lock is an update whose process died: failed.
#pragma once

#include <string>

namespace karstd {

enum class RecordState { none, running, active, failed };

struct RecordRead {
    RecordState state = RecordState::none;
    std::string path; // the software object's
};

class UpdateRecord {
  public:
    UpdateRecord(std::string dir, const char *type);

    // Writes a new record for the object at path, locked; the descriptor carries the lock,
    // which lasts until every copy of it is closed. -1 when it cannot be written.
    int create(const std::string &path) const;
    RecordRead read() const;
    void remove() const;

    // In the update's process: appends the result to the record it holds locked.
    static void finish(int fd, bool succeeded);

  private:
    std::string file_;
};

} // namespace karstd
