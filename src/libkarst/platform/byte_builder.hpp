// SPDX-License-Identifier: Apache-2.0
// A growing run of bytes in one heap buffer, for text that is put together before it is written.
#pragma once

#include "core/heap_buffer.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace karst::config {

class ByteBuilder {
  public:
    // Appends n bytes; false (and nothing appended) when the heap refuses.
    bool append(const char *data, size_t n) {
        if (n > SIZE_MAX - size_) {
            return false;
        }
        if (size_ + n > buffer_.size() && !grow(size_ + n)) {
            return false;
        }
        if (n > 0) {
            std::memcpy(buffer_.data() + size_, data, n);
        }
        size_ += n;
        return true;
    }
    bool append(const char *text) { return append(text, std::strlen(text)); }

    const char *data() const { return buffer_.chars(); }
    size_t size() const { return size_; }

  private:
    bool grow(size_t needed) {
        size_t capacity = buffer_.size() < 256 ? 256 : buffer_.size();
        while (capacity < needed) {
            capacity = capacity > SIZE_MAX / 2 ? needed : capacity * 2;
        }
        HeapBuffer bigger;
        if (!bigger.allocate(capacity)) {
            return false;
        }
        if (size_ > 0) {
            std::memcpy(bigger.data(), buffer_.data(), size_);
        }
        buffer_ = std::move(bigger);
        return true;
    }

    HeapBuffer buffer_;
    size_t size_ = 0;
};

} // namespace karst::config
