// SPDX-License-Identifier: Apache-2.0
// An owned heap buffer taken with malloc or calloc and freed on every path. Buffers handed to a
// caller leave through release() and become the caller's to free().
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace karst {

// The library's single heap allocation point. Never returns null for a successful request, also
// for size 0, so that "allocated" and "failed" stay distinguishable.
void *heap_allocate(std::size_t size, bool zeroed);
// Overwrites size bytes with zeros in a way the compiler cannot leave out.
void wipe_memory(void *data, std::size_t size);

class HeapBuffer {
  public:
    HeapBuffer() = default;
    HeapBuffer(const HeapBuffer &) = delete;
    HeapBuffer &operator=(const HeapBuffer &) = delete;
    HeapBuffer(HeapBuffer &&other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    HeapBuffer &operator=(HeapBuffer &&other) noexcept {
        if (this != &other) {
            std::free(data_);
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    ~HeapBuffer() { std::free(data_); }

    // Takes size bytes (zeroed when asked); false when the heap refuses.
    bool allocate(std::size_t size, bool zeroed = false) {
        void *p = heap_allocate(size, zeroed);
        if (p == nullptr) {
            return false;
        }
        std::free(data_);
        data_ = static_cast<std::uint8_t *>(p);
        size_ = size;
        return true;
    }

    std::uint8_t *data() const { return data_; }
    char *chars() const { return reinterpret_cast<char *>(data_); }
    std::size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

    // Hands the buffer over; the receiver frees it with free().
    std::uint8_t *release() {
        size_ = 0;
        return std::exchange(data_, nullptr);
    }

  private:
    std::uint8_t *data_ = nullptr;
    std::size_t size_ = 0;
};

// A heap buffer for key material: wiped before it is freed, so that no later allocation of the
// process finds the key in reused memory.
class SecretBuffer {
  public:
    SecretBuffer() = default;
    SecretBuffer(const SecretBuffer &) = delete;
    SecretBuffer &operator=(const SecretBuffer &) = delete;
    ~SecretBuffer() { wipe(); }

    bool allocate(std::size_t size) {
        wipe();
        return memory_.allocate(size, true);
    }
    std::uint8_t *data() const { return memory_.data(); }
    std::size_t size() const { return memory_.size(); }
    void wipe() { wipe_memory(memory_.data(), memory_.size()); }

  private:
    HeapBuffer memory_;
};

} // namespace karst
