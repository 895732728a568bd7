// SPDX-License-Identifier: Apache-2.0
#include "line_reader.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace karst::config {

bool LineReader::refill() {
    if (at_end_) {
        return false;
    }
    for (;;) {
        const ssize_t got = ::read(fd_, chunk_, CHUNK);
        if (got > 0) {
            pos_ = 0;
            fill_ = static_cast<size_t>(got);
            return true;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        failed_ = got < 0;
        at_end_ = true;
        return false;
    }
}

bool LineReader::whole_line_in_chunk() {
    const char *start = chunk_ + pos_;
    const auto *nl = static_cast<const char *>(std::memchr(start, '\n', fill_ - pos_));
    if (nl == nullptr) {
        return false;
    }
    const size_t take = static_cast<size_t>(nl - start) + 1;
    head_ = start;
    head_len_ = std::min(take, LINE_HEAD);
    pos_ += take;
    offset_ += static_cast<off_t>(take);
    ended_ = true;
    return true;
}

bool LineReader::next() {
    head_len_ = 0;
    ended_ = false;
    if (whole_line_in_chunk()) {
        return true;
    }
    head_ = copy_;
    bool any = false;
    while (!ended_) {
        if (pos_ == fill_ && !refill()) {
            break;
        }
        any = true;
        const char *start = chunk_ + pos_;
        const size_t avail = fill_ - pos_;
        const auto *nl = static_cast<const char *>(std::memchr(start, '\n', avail));
        const size_t take = nl != nullptr ? static_cast<size_t>(nl - start) + 1 : avail;
        const size_t copy = std::min(take, LINE_HEAD - head_len_);
        std::memcpy(copy_ + head_len_, start, copy);
        head_len_ += copy;
        pos_ += take;
        offset_ += static_cast<off_t>(take);
        ended_ = nl != nullptr;
    }
    return any && !failed_;
}

} // namespace karst::config
