// SPDX-License-Identifier: Apache-2.0
// An owned memory mapping, unmapped on every path. Mappings are private (copy on write): what is
// written into one never reaches the mapped file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <sys/types.h>
#include <utility>

namespace karst {

// The library's single mapping point: length bytes of the open file fd from offset, readable and
// writable, private. With fd -1 the pages are anonymous and start zeroed. MAP_FAILED on failure
// (also for length 0).
void *map_file(int fd, std::size_t length, off_t offset);
// Undoes a mapping made by map_file.
void unmap_file(void *data, std::size_t length);

class Mapping {
  public:
    Mapping() = default;
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    Mapping(Mapping &&other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    Mapping &operator=(Mapping &&other) noexcept {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    ~Mapping() { reset(); }

    // Maps length bytes of fd at offset (fd -1: anonymous memory); false when that fails.
    bool map(int fd, std::size_t length, off_t offset) {
        reset();
        void *p = map_file(fd, length, offset);
        if (p == MAP_FAILED) {
            return false;
        }
        data_ = static_cast<std::uint8_t *>(p);
        size_ = length;
        return true;
    }

    std::uint8_t *data() const { return data_; }
    std::size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

    void reset() {
        if (data_ != nullptr) {
            unmap_file(data_, size_);
            data_ = nullptr;
            size_ = 0;
        }
    }

  private:
    std::uint8_t *data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace karst
