// SPDX-License-Identifier: Apache-2.0
// The driver stand-in's descriptors: contexts (/dev/tee0) and shared memory, registered or
// allocated, as the kernel's driver keeps them.
#include "driver_state.hpp"

#include "controls.hpp"
#include "driver_book.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace karst::emu::driver {
namespace {

// The OP-TEE implementation id of TEE_IOC_VERSION.
constexpr uint32_t IMPL_ID_OPTEE = 1;

bool env_is(const char *name, const char *value) {
    const char *text = std::getenv(name);
    return text != nullptr && std::strcmp(text, value) == 0;
}

// Registered memory unless the process runs without it (KARST_EMU_REGISTERED_MEMORY=0) or a test
// turned it off (karst_emu_registered_memory), for contexts opened from then on; null memory
// references when KARST_EMU_MEMREF_NULL=1.
uint32_t capabilities() {
    uint32_t caps = TEE_GEN_CAP_GP;
    if (registers_memory() && !env_is("KARST_EMU_REGISTERED_MEMORY", "0")) {
        caps |= TEE_GEN_CAP_REG_MEM;
    }
    if (takes_null_references()) {
        caps |= TEE_GEN_CAP_MEMREF_NULL;
    }
    return caps;
}

// Whether every page of [start, start + length) is mapped writable (the driver pins the pages
// of a registration for writing, and refuses read-only memory).
bool writable(uintptr_t start, size_t length) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    uintptr_t covered = start;
    while (std::getline(maps, line) && covered < start + length) {
        uintptr_t low = 0, high = 0;
        char perms[5] = {};
        if (std::sscanf(line.c_str(), "%zx-%zx %4s", &low, &high, perms) != 3) {
            continue;
        }
        if (low <= covered && covered < high) {
            if (perms[1] != 'w') {
                return false;
            }
            covered = high;
        }
    }
    return covered >= start + length;
}

// A new shared memory's id, in the emulator's book until it goes (the tests' leak checks).
int32_t keep(std::unique_ptr<Shm> shm) {
    const int32_t id = driver().next_id++;
    memory_registered(&shm->held, {shm->memory, shm->length, false, false});
    driver().memory[id] = std::move(shm);
    return id;
}

// Shared memory goes once nothing refers to it: its descriptor closed and, allocated, the
// client's mapping gone.
void release_if_unused(std::map<int32_t, std::unique_ptr<Shm>>::iterator it) {
    Shm &shm = *it->second;
    if (shm.fd >= 0 || shm.client_mapping != nullptr) {
        return;
    }
    memory_released(&shm.held);
    if (shm.allocated) {
        ::munmap(shm.memory, shm.length);
    }
    driver().memory.erase(it);
}

// A failed request: its errno, -1.
int refused(int error) {
    errno = error;
    return -1;
}

int shm_alloc(int context_fd, tee_ioctl_shm_alloc_data &data) {
    if (next_scripted(KARST_EMU_REGISTER)) {
        return refused(ENOMEM);
    }
    const int fd = ::memfd_create("tee_shm", MFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    void *memory = ::ftruncate(fd, static_cast<off_t>(data.size)) == 0
                       ? ::mmap(nullptr, data.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                       : MAP_FAILED;
    if (memory == MAP_FAILED) {
        ::close(fd);
        return refused(ENOMEM);
    }
    auto shm = std::make_unique<Shm>();
    *shm = {context_fd, static_cast<uint8_t *>(memory), static_cast<size_t>(data.size), fd, true};
    data.id = keep(std::move(shm));
    return fd;
}

int shm_register(int context_fd, tee_ioctl_shm_register_data &data) {
    if ((capabilities() & TEE_GEN_CAP_REG_MEM) == 0) {
        return refused(EINVAL);
    }
    if (next_scripted(KARST_EMU_REGISTER)) {
        return refused(ENOMEM);
    }
    if (data.length == 0 || !writable(static_cast<uintptr_t>(data.addr), data.length)) {
        return refused(EFAULT);
    }
    const int fd = ::memfd_create("tee_shm_registered", MFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    auto shm = std::make_unique<Shm>();
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the driver's interface passes addresses so.
    *shm = {context_fd, reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(data.addr)),
            static_cast<size_t>(data.length), fd, false};
    data.id = keep(std::move(shm));
    return fd;
}

// A context's descriptor closed: its sessions closed, its emulator context finalised.
void close_context(std::unique_ptr<Context> context) {
    for (auto &[id, session] : context->sessions) {
        TEEC_CloseSession(session.get());
    }
    TEEC_FinalizeContext(&context->client);
}

} // namespace

// Never destroyed: the interposed calls may come after the process's static destructors ran.
Driver &driver() {
    static Driver &d = *new Driver;
    return d;
}

const Shm *shm_of(int context_fd, int32_t id) {
    const auto it = driver().memory.find(id);
    const bool held = it != driver().memory.end() && it->second->context == context_fd;
    return held ? it->second.get() : nullptr;
}

bool takes_null_references() {
    return env_is("KARST_EMU_MEMREF_NULL", "1");
}

int device_number(const char *path) {
    int n = -1;
    char rest = 0;
    if (path != nullptr && std::sscanf(path, "/dev/tee%d%c", &n, &rest) == 1) {
        return n;
    }
    return -1;
}

int open_context() {
    std::lock_guard lock(driver().mutex);
    auto context = std::make_unique<Context>();
    if (TEEC_InitializeContext(nullptr, &context->client) != TEEC_SUCCESS) {
        return refused(ENOENT);
    }
    const int fd = ::memfd_create("tee0", MFD_CLOEXEC);
    if (fd < 0) {
        TEEC_FinalizeContext(&context->client);
        return -1;
    }
    driver().contexts[fd] = std::move(context);
    return fd;
}

bool is_context(int fd) {
    std::lock_guard lock(driver().mutex);
    return driver().contexts.count(fd) != 0;
}

Context *context_of(int fd) {
    const auto it = driver().contexts.find(fd);
    return it == driver().contexts.end() ? nullptr : it->second.get();
}

int context_ioctl(int fd, unsigned long request, void *arg) {
    // Sessions are opened and commands run without the driver's lock: an update runs for
    // seconds, while other threads poll files (their closes pass through here).
    if (request == TEE_IOC_OPEN_SESSION) {
        return open_session_request(fd, *static_cast<tee_ioctl_buf_data *>(arg));
    }
    if (request == TEE_IOC_INVOKE) {
        return invoke_request(fd, *static_cast<tee_ioctl_buf_data *>(arg));
    }
    std::lock_guard lock(driver().mutex);
    Context *context = context_of(fd);
    if (context == nullptr) {
        return refused(EBADF);
    }
    switch (request) {
    case TEE_IOC_VERSION:
        *static_cast<tee_ioctl_version_data *>(arg) = {IMPL_ID_OPTEE, TEE_OPTEE_CAP_TZ,
                                                       capabilities()};
        return 0;
    case TEE_IOC_SHM_ALLOC:
        return shm_alloc(fd, *static_cast<tee_ioctl_shm_alloc_data *>(arg));
    case TEE_IOC_SHM_REGISTER:
        return shm_register(fd, *static_cast<tee_ioctl_shm_register_data *>(arg));
    case TEE_IOC_CLOSE_SESSION:
        return close_session_request(*context, *static_cast<tee_ioctl_close_session_arg *>(arg));
    case TEE_IOC_CANCEL:
        return 0;
    default:
        return refused(ENOTTY);
    }
}

void forget_descriptor(int fd) {
    std::lock_guard lock(driver().mutex);
    for (auto it = driver().memory.begin(); it != driver().memory.end(); ++it) {
        if (it->second->fd == fd) {
            it->second->fd = -1;
            release_if_unused(it);
            break;
        }
    }
    const auto it = driver().contexts.find(fd);
    if (it != driver().contexts.end()) {
        std::unique_ptr<Context> context = std::move(it->second);
        driver().contexts.erase(it);
        close_context(std::move(context));
    }
}

void note_mapping(int fd, void *address) {
    if (fd < 0 || address == MAP_FAILED) {
        return;
    }
    std::lock_guard lock(driver().mutex);
    for (auto &[id, shm] : driver().memory) {
        if (shm->fd == fd && shm->allocated) {
            shm->client_mapping = address;
            return;
        }
    }
}

void forget_mapping(void *address) {
    std::lock_guard lock(driver().mutex);
    for (auto it = driver().memory.begin(); it != driver().memory.end(); ++it) {
        if (it->second->client_mapping == address) {
            it->second->client_mapping = nullptr;
            release_if_unused(it);
            return;
        }
    }
}

} // namespace karst::emu::driver
