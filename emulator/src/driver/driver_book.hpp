// SPDX-License-Identifier: Apache-2.0
// What the driver stand-in holds: the contexts it opened (a context of the emulator's client
// library behind each) with their sessions, and the shared memory made on them.
#pragma once

#include "tee_client_api.h"

#include <cstdint>
#include <linux/tee.h>
#include <map>
#include <memory>
#include <mutex>

namespace karst::emu::driver {

struct Context {
    TEEC_Context client{};
    std::map<uint32_t, std::unique_ptr<TEEC_Session>> sessions;
};

// Shared memory: the caller's pages (registered) or the driver's own (allocated: a memfd that the
// client maps). It lasts while its descriptor is open and, allocated, while the client maps it.
struct Shm {
    int context = -1; // the descriptor of the context it was made on
    uint8_t *memory = nullptr;
    size_t length = 0;
    int fd = -1; // its descriptor; -1 once closed
    bool allocated = false;
    void *client_mapping = nullptr; // allocated: where the client mapped it
    TEEC_SharedMemory held{};       // its entry in the emulator's book while it lasts
};

struct Driver {
    std::recursive_mutex mutex; // the emulator's own closes come back through close()
    std::map<int, std::unique_ptr<Context>> contexts; // by descriptor
    std::map<int32_t, std::unique_ptr<Shm>> memory;   // by id
    int32_t next_id = 1;
    uint32_t next_session = 1;
};

// The driver's state; callers hold its mutex.
Driver &driver();
// The context of descriptor fd; null for another descriptor.
Context *context_of(int fd);

// The memory of id that the context holds; null when it holds none.
const Shm *shm_of(int context_fd, int32_t id);
// Whether the driver takes a null memory reference (TEE_GEN_CAP_MEMREF_NULL).
bool takes_null_references();

// The session requests, passed on to the emulator's client library: 0, or -1 with errno set.
// Opening and invoking take the driver's lock for its records alone; closing is called with it.
int open_session_request(int context_fd, tee_ioctl_buf_data &buf);
int invoke_request(int context_fd, tee_ioctl_buf_data &buf);
int close_session_request(Context &context, const tee_ioctl_close_session_arg &arg);

} // namespace karst::emu::driver
