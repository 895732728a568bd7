// SPDX-License-Identifier: Apache-2.0
// Reads a file descriptor line by line, lines of any length, keeping the head of each line (the
// part that decides how a key=value line scans) and the file position just after it. Needs no
// heap memory, so a scan cannot fail half way for want of it.
#pragma once

#include "config_line.hpp"

#include <cstddef>
#include <sys/types.h>

namespace karst::config {

class LineReader {
  public:
    // Reads from the descriptor's current position, which must be the start of the file.
    explicit LineReader(int fd) : fd_(fd) {}
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // Moves to the next line; false at the end of the file or after a read error.
    bool next();

    // The line's first bytes (at most LINE_HEAD), in the reader's own memory until the next call.
    const char *head() const { return head_; }
    size_t head_length() const { return head_len_; }
    // Whether the line ended with a line end (the last line of a file may not).
    bool ended() const { return ended_; }
    // The file position just after the line.
    off_t end_offset() const { return offset_; }
    // Whether reading stopped on an error rather than at the end of the file.
    bool failed() const { return failed_; }

  private:
    bool refill();
    // The next line when the chunk holds it up to its line end: its head is read in place.
    bool whole_line_in_chunk();

    static constexpr size_t CHUNK = 16384;
    int fd_;
    size_t pos_ = 0;
    size_t fill_ = 0;
    size_t head_len_ = 0;
    off_t offset_ = 0;
    bool ended_ = false;
    bool failed_ = false;
    bool at_end_ = false;
    const char *head_ = copy_;
    char copy_[LINE_HEAD]; // the head of a line that crosses chunks
    char chunk_[CHUNK];
};

} // namespace karst::config
