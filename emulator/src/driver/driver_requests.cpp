// SPDX-License-Identifier: Apache-2.0
// The driver's session requests (open, invoke, close), passed on to the emulator's client
// library. The driver checks what it is sent: the request's length, at most four parameters, a
// known session, memory the context holds and references within it; what it refuses answers
// EINVAL, which the client library reports as TEEC_ERROR_BAD_PARAMETERS with origin COMMS.
#include "controls.hpp"
#include "driver_book.hpp"

#include <cerrno>
#include <cstring>

namespace karst::emu::driver {
namespace {

// One request in the emulator's client library's terms: values as they are, each memory
// reference a whole block over the driver's memory, in the emulator's book for the call alone
// (shared as it is, as the driver shares memory whatever its direction).
struct Call {
    TEEC_Operation op{};
    TEEC_SharedMemory blocks[TEEC_CONFIG_PAYLOAD_REF_COUNT]{};
    bool in_book[TEEC_CONFIG_PAYLOAD_REF_COUNT]{};

    Call() = default;
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;
    ~Call() {
        for (int i = 0; i < TEEC_CONFIG_PAYLOAD_REF_COUNT; ++i) {
            if (in_book[i]) {
                memory_released(&blocks[i]);
            }
        }
    }
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

bool is_value(uint64_t attr) {
    return attr >= TEE_IOCTL_PARAM_ATTR_TYPE_VALUE_INPUT &&
           attr <= TEE_IOCTL_PARAM_ATTR_TYPE_VALUE_INOUT;
}
bool is_memref(uint64_t attr) {
    return attr >= TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_INPUT &&
           attr <= TEE_IOCTL_PARAM_ATTR_TYPE_MEMREF_INOUT;
}

// A memory reference into the call: false for memory the context does not hold or a reference
// beyond it. A null reference (where the driver takes one) reaches the application as an empty
// temporary reference.
bool add_memref(int context_fd, const tee_ioctl_param &in, int i, Call &call) {
    const uint64_t attr = in.attr & TEE_IOCTL_PARAM_ATTR_TYPE_MASK;
    if (in.c == TEE_MEMREF_NULL) {
        call.op.paramTypes |= static_cast<uint32_t>(attr) << (4 * i);
        return takes_null_references();
    }
    const Shm *shm = shm_of(context_fd, static_cast<int32_t>(in.c));
    if (shm == nullptr || in.a > shm->length || in.b > shm->length - in.a) {
        return false;
    }
    uint8_t *memory = shm->memory + in.a;
    TEEC_SharedMemory &block = call.blocks[i];
    block = {memory, static_cast<size_t>(in.b), direction_flags(attr), 0, nullptr, nullptr};
    memory_registered(&block, {memory, block.size, false, false});
    call.in_book[i] = true;
    call.op.paramTypes |= TEEC_MEMREF_WHOLE << (4 * i);
    call.op.params[i].memref = {&block, block.size, 0};
    return true;
}

// The request's parameters into the call; false when the driver refuses one.
bool add_params(int context_fd, const tee_ioctl_param *params, uint32_t count, Call &call) {
    for (uint32_t i = 0; i < count; ++i) {
        const tee_ioctl_param &in = params[i];
        const uint64_t attr = in.attr & TEE_IOCTL_PARAM_ATTR_TYPE_MASK;
        const int n = static_cast<int>(i);
        if (is_value(attr)) {
            call.op.paramTypes |= static_cast<uint32_t>(attr) << (4 * n);
            call.op.params[i].value = {static_cast<uint32_t>(in.a), static_cast<uint32_t>(in.b)};
        } else if (is_memref(attr)) {
            if (!add_memref(context_fd, in, n, call)) {
                return false;
            }
        } else if (attr != TEE_IOCTL_PARAM_ATTR_TYPE_NONE) {
            return false;
        }
    }
    return true;
}

// The answers back into the request's parameters: output values, and the size the application
// reported for each memory reference.
void answer(const Call &call, tee_ioctl_param *params, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(call.op.paramTypes, i);
        if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
            params[i].a = call.op.params[i].value.a;
            params[i].b = call.op.params[i].value.b;
        } else if (call.in_book[i]) {
            params[i].b = call.op.params[i].memref.size;
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

TEEC_UUID uuid_of(const uint8_t (&u)[TEE_IOCTL_UUID_LEN]) {
    TEEC_UUID uuid{static_cast<uint32_t>(u[0] << 24 | u[1] << 16 | u[2] << 8 | u[3]),
                   static_cast<uint16_t>(u[4] << 8 | u[5]),
                   static_cast<uint16_t>(u[6] << 8 | u[7]),
                   {}};
    std::memcpy(uuid.clockSeqAndNode, u + 8, sizeof uuid.clockSeqAndNode);
    return uuid;
}

// The open session id of a context; null when it has none.
TEEC_Session *session_of(int context_fd, uint32_t id) {
    Context *context = context_of(context_fd);
    if (context == nullptr) {
        return nullptr;
    }
    const auto it = context->sessions.find(id);
    return it == context->sessions.end() ? nullptr : it->second.get();
}

} // namespace

int open_session_request(int context_fd, tee_ioctl_buf_data &buf) {
    auto *arg = request_of<tee_ioctl_open_session_arg>(buf);
    TEEC_Context *client = nullptr;
    {
        std::lock_guard lock(driver().mutex);
        Context *context = context_of(context_fd);
        client = context == nullptr ? nullptr : &context->client;
    }
    if (arg == nullptr || client == nullptr) {
        errno = arg == nullptr ? EINVAL : EBADF;
        return -1;
    }
    const TEEC_UUID uuid = uuid_of(arg->uuid);
    auto session = std::make_unique<TEEC_Session>();
    uint32_t origin = 0;
    arg->ret =
        TEEC_OpenSession(client, session.get(), &uuid, arg->clnt_login, nullptr, nullptr, &origin);
    arg->ret_origin = origin;
    if (arg->ret != TEEC_SUCCESS) {
        return 0;
    }
    std::lock_guard lock(driver().mutex);
    Context *context = context_of(context_fd);
    if (context == nullptr) { // closed meanwhile by another thread
        TEEC_CloseSession(session.get());
        errno = EBADF;
        return -1;
    }
    arg->session = driver().next_session++;
    context->sessions[arg->session] = std::move(session);
    return 0;
}

int invoke_request(int context_fd, tee_ioctl_buf_data &buf) {
    auto *arg = request_of<tee_ioctl_invoke_arg>(buf);
    Call call;
    TEEC_Session *session = nullptr;
    {
        std::lock_guard lock(driver().mutex);
        session = arg == nullptr ? nullptr : session_of(context_fd, arg->session);
        if (session == nullptr || !add_params(context_fd, arg->params, arg->num_params, call)) {
            errno = EINVAL;
            return -1;
        }
    }
    uint32_t origin = 0;
    arg->ret = TEEC_InvokeCommand(session, arg->func, &call.op, &origin);
    arg->ret_origin = origin;
    answer(call, arg->params, arg->num_params);
    return 0;
}

int close_session_request(Context &context, const tee_ioctl_close_session_arg &arg) {
    const auto node = context.sessions.extract(arg.session);
    if (node.empty()) {
        errno = EINVAL;
        return -1;
    }
    TEEC_CloseSession(node.mapped().get());
    return 0;
}

} // namespace karst::emu::driver
