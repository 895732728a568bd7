// SPDX-License-Identifier: Apache-2.0
// Buffers exchanged with the secure world: the library's own heap memory, registered as shared
// memory with the open context. The destructor releases the registration and then frees the
// buffer, so a routine that declares its buffers in order releases them last buffer first, on
// every path.
#pragma once

#include "heap_buffer.hpp"
#include "tee_session.hpp"

#include <cstddef>
#include <cstdint>

namespace karst::tee {

// The library's single points where memory is registered with, or allocated by, the TEE client
// library. With no context open they answer TEEC_ERROR_BAD_PARAMETERS without calling it.
TEEC_Result register_memory(TEEC_SharedMemory &record);
TEEC_Result allocate_memory(TEEC_SharedMemory &record);

// A registration of memory that someone else owns (a mapping, a caller's buffer), or a block the
// client library allocates (shared with the secure world as it is, whether or not the driver can
// register memory; its bytes are at record()->buffer).
class SharedRegion {
  public:
    SharedRegion() = default;
    SharedRegion(const SharedRegion &) = delete;
    SharedRegion &operator=(const SharedRegion &) = delete;
    ~SharedRegion() { release(); }

    TEEC_Result share(void *buffer, std::size_t size, std::uint32_t flags);
    TEEC_Result allocate(std::size_t size, std::uint32_t flags);
    void release();

    TEEC_SharedMemory *record() { return &record_; }
    bool registered() const { return registered_; }

  private:
    TEEC_SharedMemory record_{};
    bool registered_ = false;
};

// A heap buffer of the routine's own, optionally registered.
class SharedBuffer {
  public:
    bool allocate(std::size_t size, bool zeroed = false) { return memory_.allocate(size, zeroed); }
    TEEC_Result share(std::uint32_t flags) {
        return region_.share(memory_.data(), memory_.size(), flags);
    }

    std::uint8_t *data() const { return memory_.data(); }
    char *chars() const { return memory_.chars(); }
    std::size_t size() const { return memory_.size(); }
    TEEC_SharedMemory *record() { return region_.record(); }

  private:
    HeapBuffer memory_;   // destroyed second: freed
    SharedRegion region_; // destroyed first: released
};

// An operation record under construction.
class Operation {
  public:
    Operation() = default;

    // A whole registered block as parameter index.
    Operation &whole(int index, SharedRegion &region) { return whole(index, region.record()); }
    Operation &whole(int index, SharedBuffer &buffer) { return whole(index, buffer.record()); }
    // A value input parameter (numbers in a and b).
    Operation &value(int index, std::uint32_t a, std::uint32_t b = 0);

    TEEC_Operation *get() { return &op_; }
    // The data size the secure world reported for a memory reference parameter.
    std::size_t size_of(int index) const { return op_.params[index].memref.size; }

  private:
    Operation &whole(int index, TEEC_SharedMemory *record);
    void set_type(int index, std::uint32_t type);

    TEEC_Operation op_{};
};

// Invokes a command of the open session. origin receives the return origin.
TEEC_Result invoke(std::uint32_t command, Operation &operation, std::uint32_t &origin);
// Invokes a command that takes no operation at all (a null operation pointer).
TEEC_Result invoke_without_operation(std::uint32_t command, std::uint32_t &origin);

} // namespace karst::tee
