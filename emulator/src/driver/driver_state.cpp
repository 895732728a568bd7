// SPDX-License-Identifier: Apache-2.0
#include "driver_state.hpp"

#include "karst_emu.h"
#include "tee_client_api.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <linux/tee.h>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace karst::emu::driver {
namespace {

// The OP-TEE implementation id of TEE_IOC_VERSION.
constexpr uint32_t IMPL_ID_OPTEE = 1;

struct Shm {
    uint8_t *memory;
    size_t length;
};

struct Context {
    TEEC_Context client{};
    std::map<uint32_t, std::unique_ptr<TEEC_Session>> sessions;
};

struct Driver {
    std::recursive_mutex mutex; // closes made by the client library re-enter
    std::map<int, std::unique_ptr<Context>> contexts;
    std::map<int32_t, Shm> memory;     // by id
    std::map<int, int32_t> registered; // descriptor of a registration: its id
    int32_t next_id = 1;
    uint32_t next_session = 1;
};

Driver &driver() {
    static Driver d;
    return d;
}

bool env_is(const char *name, const char *value, bool unset) {
    const char *text = std::getenv(name);
    return text == nullptr ? unset : std::strcmp(text, value) == 0;
}

uint32_t capabilities() {
    uint32_t caps = TEE_GEN_CAP_GP;
    if (!env_is("KARST_EMU_REGISTERED_MEMORY", "0", false)) {
        caps |= TEE_GEN_CAP_REG_MEM;
    }
    if (env_is("KARST_EMU_MEMREF_NULL", "1", false)) {
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

// The memory behind shared memory id; null when the driver has none.
const Shm *shm_of(int32_t id) {
    auto it = driver().memory.find(id);
    return it == driver().memory.end() ? nullptr : &it->second;
}

// The parameters of one request in the emulator's client library's terms: values as they are,
// each memory reference a whole block registered for the call over the driver's shared memory
// (registered as it is: the secure world sees shared memory whatever its direction).
struct Call {
    TEEC_Operation op{};
    TEEC_SharedMemory blocks[4]{};
    bool registered[4]{};
};

uint32_t direction_flags(uint64_t attr) {
    switch (attr) {
    case TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_INPUT:
        return TEEC_MEM_INPUT;
    case TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_OUTPUT:
        return TEEC_MEM_OUTPUT;
    default:
        return TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    }
}

// One parameter into the call; false (EINVAL) for memory the driver does not hold or a
// reference beyond it.
bool add_param(Context &context, const tee_ioctl_param &in, int i, Call &call) {
    const uint64_t attr = in.attr & TEE_IOCTL_PARAM_ATTR_TYPE_MASK;
    uint32_t type = static_cast<uint32_t>(attr);
    if (attr >= TEE_IOCTL_PARAM_ATTR_TYPE_VALUE_INPUT &&
        attr <= TEE_IOCTL_PARAM_ATTR_TYPE_VALUE_INOUT) {
        call.op.params[i].value = {static_cast<uint32_t>(in.a), static_cast<uint32_t>(in.b)};
    } else if (attr >= TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_INPUT &&
               attr <= TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_INOUT) {
        if (in.c == TEE_MEMREF_NULL) { // a null temporary reference, where the driver takes one
            call.op.paramTypes |= type << (4 * i);
            return (capabilities() & TEE_GEN_CAP_MEMREF_NULL) != 0;
        }
        const Shm *shm = shm_of(static_cast<int32_t>(in.c));
        if (shm == nullptr || in.a > shm->length || in.b > shm->length - in.a) {
            return false;
        }
        call.blocks[i] = {shm->memory + in.a,
                          static_cast<size_t>(in.b),
                          direction_flags(attr),
                          0,
                          nullptr,
                          nullptr};
        if (TEEC_RegisterSharedMemory(&context.client, &call.blocks[i]) != TEEC_SUCCESS) {
            return false;
        }
        call.registered[i] = true;
        type = TEEC_MEMREF_WHOLE;
        call.op.params[i].memref = {&call.blocks[i], static_cast<size_t>(in.b), 0};
    } else if (attr != TEE_IOCTL_PARAM_ATTR_TYPE_NONE) {
        return false;
    }
    call.op.paramTypes |= type << (4 * i);
    return true;
}

// The answers back into the request's parameters, and the call's blocks released.
void finish(Call &call, tee_ioctl_param *params, int count) {
    for (int i = 0; i < count; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(call.op.paramTypes, i);
        if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
            params[i].a = call.op.params[i].value.a;
            params[i].b = call.op.params[i].value.b;
        } else if (call.registered[i]) {
            params[i].b = call.op.params[i].memref.size;
            TEEC_ReleaseSharedMemory(&call.blocks[i]);
        }
    }
}

// The request's argument and its parameters, when the buffer holds them.
template <typename Arg> Arg *request_of(tee_ioctl_buf_data &buf) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the driver's interface passes addresses so.
    auto *arg = reinterpret_cast<Arg *>(static_cast<uintptr_t>(buf.buf_ptr));
    if (arg == nullptr || buf.buf_len < sizeof(Arg) ||
        arg->num_params > TEEC_CONFIG_PAYLOAD_REF_COUNT ||
        buf.buf_len < sizeof(Arg) + arg->num_params * sizeof(tee_ioctl_param)) {
        return nullptr;
    }
    return arg;
}

int shm_alloc(tee_ioctl_shm_alloc_data &data) {
    const int fd = ::memfd_create("tee_shm", MFD_CLOEXEC);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(data.size)) != 0) {
        return -1;
    }
    void *memory = ::mmap(nullptr, data.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        return -1;
    }
    data.id = driver().next_id++;
    driver().memory[data.id] = {static_cast<uint8_t *>(memory), static_cast<size_t>(data.size)};
    return fd;
}

int shm_register(tee_ioctl_shm_register_data &data) {
    if ((capabilities() & TEE_GEN_CAP_REG_MEM) == 0) {
        errno = EINVAL;
        return -1;
    }
    if (data.length == 0 || !writable(static_cast<uintptr_t>(data.addr), data.length)) {
        errno = EFAULT;
        return -1;
    }
    const int fd = ::memfd_create("tee_shm_registered", MFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    data.id = driver().next_id++;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the driver's interface passes addresses so.
    driver().memory[data.id] = {reinterpret_cast<uint8_t *>(static_cast<uintptr_t>(data.addr)),
                                static_cast<size_t>(data.length)};
    driver().registered[fd] = data.id;
    return fd;
}

} // namespace

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
        errno = ENOENT;
        return -1;
    }
    // The driver's memory is shared as it is: the emulator's client library registers it so.
    karst_emu_registered_memory(1);
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

void forget_descriptor(int fd) {
    std::lock_guard lock(driver().mutex);
    driver().registered.erase(fd);
    auto it = driver().contexts.find(fd);
    if (it == driver().contexts.end()) {
        return;
    }
    std::unique_ptr<Context> context = std::move(it->second);
    driver().contexts.erase(it);
    for (auto &[id, session] : context->sessions) {
        TEEC_CloseSession(session.get());
    }
    TEEC_FinalizeContext(&context->client);
}

int invoke_ioctl(Context &context, tee_ioctl_buf_data &buf) {
    auto *arg = request_of<tee_ioctl_invoke_arg>(buf);
    auto session = arg == nullptr ? context.sessions.end() : context.sessions.find(arg->session);
    Call call;
    bool accepted = session != context.sessions.end();
    for (uint32_t i = 0; accepted && i < arg->num_params; ++i) {
        accepted = add_param(context, arg->params[i], static_cast<int>(i), call);
    }
    if (!accepted) {
        for (int i = 0; i < TEEC_CONFIG_PAYLOAD_REF_COUNT; ++i) {
            if (call.registered[i]) {
                TEEC_ReleaseSharedMemory(&call.blocks[i]);
            }
        }
        errno = EINVAL;
        return -1;
    }
    uint32_t origin = 0;
    arg->ret = TEEC_InvokeCommand(session->second.get(), arg->func, &call.op, &origin);
    arg->ret_origin = origin;
    finish(call, arg->params, static_cast<int>(arg->num_params));
    return 0;
}

int open_session_ioctl(Context &context, tee_ioctl_buf_data &buf, uint32_t &next_session) {
    auto *arg = request_of<tee_ioctl_open_session_arg>(buf);
    if (arg == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const uint8_t *u = arg->uuid;
    TEEC_UUID uuid{static_cast<uint32_t>(u[0] << 24 | u[1] << 16 | u[2] << 8 | u[3]),
                   static_cast<uint16_t>(u[4] << 8 | u[5]),
                   static_cast<uint16_t>(u[6] << 8 | u[7]),
                   {}};
    std::memcpy(uuid.clockSeqAndNode, u + 8, sizeof uuid.clockSeqAndNode);
    auto session = std::make_unique<TEEC_Session>();
    uint32_t origin = 0;
    arg->ret = TEEC_OpenSession(&context.client, session.get(), &uuid, arg->clnt_login, nullptr,
                                nullptr, &origin);
    arg->ret_origin = origin;
    if (arg->ret == TEEC_SUCCESS) {
        arg->session = next_session++;
        context.sessions[arg->session] = std::move(session);
    }
    return 0;
}

int context_ioctl(int fd, unsigned long request, void *arg) {
    std::lock_guard lock(driver().mutex);
    Context &context = *driver().contexts.at(fd);
    switch (request) {
    case TEE_IOC_VERSION:
        *static_cast<tee_ioctl_version_data *>(arg) = {IMPL_ID_OPTEE, TEE_OPTEE_CAP_TZ,
                                                       capabilities()};
        return 0;
    case TEE_IOC_SHM_ALLOC:
        return shm_alloc(*static_cast<tee_ioctl_shm_alloc_data *>(arg));
    case TEE_IOC_SHM_REGISTER:
        return shm_register(*static_cast<tee_ioctl_shm_register_data *>(arg));
    case TEE_IOC_OPEN_SESSION:
        return open_session_ioctl(context, *static_cast<tee_ioctl_buf_data *>(arg),
                                  driver().next_session);
    case TEE_IOC_INVOKE:
        return invoke_ioctl(context, *static_cast<tee_ioctl_buf_data *>(arg));
    case TEE_IOC_CLOSE_SESSION: {
        const auto node =
            context.sessions.extract(static_cast<tee_ioctl_close_session_arg *>(arg)->session);
        if (node.empty()) {
            errno = EINVAL;
            return -1;
        }
        TEEC_CloseSession(node.mapped().get());
        return 0;
    }
    case TEE_IOC_CANCEL:
        return 0;
    default:
        errno = ENOTTY;
        return -1;
    }
}

} // namespace karst::emu::driver
