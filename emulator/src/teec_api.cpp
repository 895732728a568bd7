// SPDX-License-Identifier: Apache-2.0
// The GlobalPlatform TEE Client API in front of the application model.
//
// Contexts hold a real descriptor (the state directory), so descriptor leaks show. Sessions
// hold the application's session lock, a whole-file lock in the state directory: one session at
// a time across all processes, released when the holder closes it or dies. Registered memory is
// the caller's own memory, read and written in place, or behind a bounce buffer when the client
// works without registered memory (karst_emu_registered_memory). Checks and answers follow the
// client library over the kernel's driver: what the library itself refuses has origin API, what
// the driver refuses origin COMMS and a trace line on standard output.
#include "answers.hpp"
#include "application.hpp"
#include "controls.hpp"
#include "state_dir.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace karst::emu;

namespace {

std::atomic<uint32_t> g_next_id{1};

void set_origin(uint32_t *origin, uint32_t value) {
    if (origin != nullptr) {
        *origin = value;
    }
}

bool is_value(uint32_t type) {
    return type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT;
}
bool is_temp(uint32_t type) {
    return type >= TEEC_MEMREF_TEMP_INPUT && type <= TEEC_MEMREF_TEMP_INOUT;
}
bool is_partial(uint32_t type) {
    return type >= TEEC_MEMREF_PARTIAL_INPUT && type <= TEEC_MEMREF_PARTIAL_INOUT;
}

// Direction bits of a memory reference: TEEC_MEM_INPUT and/or TEEC_MEM_OUTPUT.
uint32_t direction_of(uint32_t type) {
    switch (type) {
    case TEEC_MEMREF_TEMP_INPUT:
    case TEEC_MEMREF_PARTIAL_INPUT:
        return TEEC_MEM_INPUT;
    case TEEC_MEMREF_TEMP_OUTPUT:
    case TEEC_MEMREF_PARTIAL_OUTPUT:
        return TEEC_MEM_OUTPUT;
    default:
        return TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    }
}

Kind memory_kind(uint32_t direction) {
    if (direction == TEEC_MEM_INPUT) {
        return Kind::mem_in;
    }
    return direction == TEEC_MEM_OUTPUT ? Kind::mem_out : Kind::mem_inout;
}

// Lines of the client library's trace for a request the driver refused, as its 3.19 release
// prints them.
constexpr int OPEN_SESSION_TRACE_LINE = 643;
constexpr int CLOSE_SESSION_TRACE_LINE = 675;
constexpr int INVOKE_TRACE_LINE = 732;

// Flags a registration or allocation takes: one or both directions, nothing else.
bool valid_flags(uint32_t flags) {
    return flags != 0 && (flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) == 0;
}

// What the driver registers for a block of size bytes: an empty block still gets eight.
size_t registered_length(size_t size) {
    constexpr size_t EMPTY_BLOCK_LENGTH = 8;
    return size == 0 ? EMPTY_BLOCK_LENGTH : size;
}

// How the client library copies between the caller's memory and a bounce buffer around one
// call: what it copies in before and back after (nothing for memory shared as it is).
struct Window {
    TEEC_SharedMemory *parent = nullptr; // null: no bounce buffer
    size_t offset = 0;
    bool copy_in = false;
    bool copy_out = false;
};

// Who refuses a parameter: nobody, the client library (origin API) before anything is sent, or
// the driver (origin COMMS) when the request reaches it.
enum class Refusal { none, api, driver };

// A registered (whole or partial) reference. The record's flags and size are read now, as the
// client library reads them at each invoke; the memory is what was registered, and the driver
// refuses a reference beyond its length or to a block it does not know.
Refusal describe_registered(uint32_t type, TEEC_RegisteredMemoryReference &ref, Param &out,
                            Window &window) {
    TEEC_SharedMemory *shm = ref.parent;
    if (shm == nullptr) {
        return Refusal::api;
    }
    const uint32_t flags = shm->flags & (TEEC_MEM_INPUT | TEEC_MEM_OUTPUT);
    const bool whole = type == TEEC_MEMREF_WHOLE;
    const uint32_t direction = whole ? flags : direction_of(type);
    const size_t offset = whole ? 0 : ref.offset;
    const size_t size = whole ? shm->size : ref.size;
    if (direction == 0 || (flags & direction) != direction ||
        (!whole && (offset > shm->size || size > shm->size - offset))) {
        return Refusal::api;
    }
    const auto reg = registration_of(shm);
    if (!reg || offset > reg->length || size > reg->length - offset) {
        return Refusal::driver;
    }
    out.kind = memory_kind(direction);
    out.memory = {reg->shared + offset, size};
    out.reported = size;
    if (reg->bounce) {
        window = {shm, offset, (direction & TEEC_MEM_INPUT) != 0,
                  (direction & TEEC_MEM_OUTPUT) != 0};
    }
    return Refusal::none;
}

// Checks one parameter against its type and describes it to the application.
Refusal describe(uint32_t type, TEEC_Parameter &in, Param &out, Window &window) {
    if (type == TEEC_NONE) {
        return Refusal::none;
    }
    if (is_value(type)) {
        out.kind = static_cast<Kind>(type);
        out.value = in.value;
        return Refusal::none;
    }
    if (is_temp(type)) {
        if (in.tmpref.buffer == nullptr && in.tmpref.size != 0) {
            return Refusal::api;
        }
        out.kind = memory_kind(direction_of(type));
        out.memory = {static_cast<uint8_t *>(in.tmpref.buffer), in.tmpref.size};
        out.reported = in.tmpref.size;
        return Refusal::none;
    }
    if (type != TEEC_MEMREF_WHOLE && !is_partial(type)) {
        return Refusal::api;
    }
    return describe_registered(type, in.memref, out, window);
}

// The caller's input bytes into the bounce buffers, before the call.
void copy_in(const Params &params, const Window (&windows)[4]) {
    for (int i = 0; i < 4; ++i) {
        const Window &w = windows[i];
        if (w.parent != nullptr && w.copy_in && !params.p[i].memory.empty()) {
            std::memcpy(params.p[i].memory.data(),
                        static_cast<uint8_t *>(w.parent->buffer) + w.offset,
                        params.p[i].memory.size());
        }
    }
}

// The application's answer back from a bounce buffer into the caller's memory, when it fits the
// reference.
void copy_out(const Params &params, const Window (&windows)[4]) {
    for (int i = 0; i < 4; ++i) {
        const Window &w = windows[i];
        const Param &p = params.p[i];
        if (w.parent != nullptr && w.copy_out && p.reported <= p.memory.size() && p.reported > 0) {
            std::memcpy(static_cast<uint8_t *>(w.parent->buffer) + w.offset, p.memory.data(),
                        p.reported);
        }
    }
}

// The client library's line on standard output for a request the driver refused.
void client_trace(const char *function, int line, const std::string &text) {
    std::printf("ERR [%ld] LT:%s:%d: %s\n", static_cast<long>(::syscall(SYS_gettid)), function,
                line, text.c_str());
    std::fflush(stdout);
}

// Writes back what the application answered, for every output parameter.
void write_back(uint32_t types, TEEC_Operation *op, const Params &params, TEEC_Result res) {
    for (int i = 0; i < 4; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(types, i);
        const Param &p = params.p[i];
        if (is_value(type) && type != TEEC_VALUE_INPUT && res == TEEC_SUCCESS) {
            op->params[i].value = p.value;
        } else if (is_temp(type) && p.is_output()) {
            op->params[i].tmpref.size = p.reported;
        } else if ((type == TEEC_MEMREF_WHOLE || is_partial(type)) && p.is_output()) {
            op->params[i].memref.size = p.reported;
        }
    }
}

// What the driver answers a request on session: a context no longer open has no descriptor
// (GENERIC), a session or memory block the context does not hold is refused (BAD_PARAMETERS).
TEEC_Result driver_answer(const TEEC_Session &session, bool memory_refused) {
    if (!context_known(session.ctx)) {
        return TEEC_ERROR_GENERIC;
    }
    if (!session_known(&session) || memory_refused) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    return TEEC_SUCCESS;
}

// The application's answer to a command, or what a test scripted in its place.
TEEC_Result run_command(uint32_t command_id, Params &params) {
    if (const auto scripted = next_scripted(KARST_EMU_INVOKE)) {
        return *scripted;
    }
    if (const auto answer = answer_for(command_id)) {
        Param &out = params[answer->param];
        return out.is_output() ? out.put(answer->data.data(), answer->data.size())
                               : TEEC_ERROR_BAD_PARAMETERS;
    }
    return application_invoke(command_id, params);
}

JournalEntry journal_entry(uint32_t command, uint32_t types, const TEEC_Operation *op,
                           const Params &params) {
    JournalEntry e;
    e.command = command;
    e.param_types = types;
    const size_t limit = journal_input_limit();
    for (int i = 0; i < 4; ++i) {
        const Param &p = params.p[i];
        JournalParam &j = e.params[i];
        j.type = TEEC_PARAM_TYPE_GET(types, i);
        if (is_value(j.type)) {
            j.a = op->params[i].value.a;
            j.b = op->params[i].value.b;
        } else if (j.type != TEEC_NONE) {
            j.size = p.memory.size();
            if (j.type == TEEC_MEMREF_WHOLE || is_partial(j.type)) {
                if (const TEEC_SharedMemory *parent = op->params[i].memref.parent) {
                    j.flags = parent->flags;
                }
            }
            if (p.is_input()) {
                const size_t n = std::min(limit, p.memory.size());
                j.input.assign(p.memory.begin(), p.memory.begin() + static_cast<ptrdiff_t>(n));
            }
        }
    }
    return e;
}

} // namespace

extern "C" {

TEEC_Result TEEC_InitializeContext(const char *name, TEEC_Context *context) {
    if (context == nullptr) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (const auto scripted = next_scripted(KARST_EMU_INIT)) {
        return *scripted;
    }
    if (name != nullptr) {
        return TEEC_ERROR_ITEM_NOT_FOUND; // only the default TEE is known
    }
    const std::string dir = state_dir();
    const int fd = dir.empty() ? -1 : ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return TEEC_ERROR_ITEM_NOT_FOUND; // no TEE device
    }
    context->fd = fd;
    context->imp_id = g_next_id++;
    context->imp_reserved = nullptr;
    context_opened(context);
    return TEEC_SUCCESS;
}

void TEEC_FinalizeContext(TEEC_Context *context) {
    if (context == nullptr || !context_known(context)) {
        return;
    }
    context_closed(context);
    ::close(context->fd);
}

TEEC_Result TEEC_OpenSession(TEEC_Context *context, TEEC_Session *session,
                             const TEEC_UUID *destination, uint32_t, const void *, TEEC_Operation *,
                             uint32_t *return_origin) {
    set_origin(return_origin, TEEC_ORIGIN_API);
    if (context == nullptr || session == nullptr || destination == nullptr) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (!context_known(context)) {
        client_trace(__func__, OPEN_SESSION_TRACE_LINE, "TEE_IOC_OPEN_SESSION failed");
        set_origin(return_origin, TEEC_ORIGIN_COMMS);
        return TEEC_ERROR_GENERIC; // no descriptor
    }
    if (const auto scripted = next_scripted(KARST_EMU_OPEN)) {
        set_origin(return_origin, TEEC_ORIGIN_TRUSTED_APP);
        return *scripted;
    }
    if (!is_application(*destination)) {
        set_origin(return_origin, TEEC_ORIGIN_TEE);
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    const std::string lock_path = state_dir() + "/session.lock";
    const int lock_fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (lock_fd < 0) {
        set_origin(return_origin, TEEC_ORIGIN_COMMS);
        return TEEC_ERROR_COMMUNICATION;
    }
    if (::flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(lock_fd);
        set_origin(return_origin, TEEC_ORIGIN_TRUSTED_APP);
        return TEEC_ERROR_BUSY; // another session holds the application
    }
    session->ctx = context;
    session->imp_id = g_next_id++;
    session->imp_lock_fd = lock_fd;
    session_opened(session);
    set_origin(return_origin, TEEC_ORIGIN_TRUSTED_APP);
    return TEEC_SUCCESS;
}

void TEEC_CloseSession(TEEC_Session *session) {
    if (session == nullptr) {
        return;
    }
    if (!session_known(session)) {
        char text[sizeof "Failed to close session 0x" + 8];
        std::snprintf(text, sizeof text, "Failed to close session 0x%x", session->imp_id);
        client_trace(__func__, CLOSE_SESSION_TRACE_LINE, text);
        return;
    }
    session_closed(session);
    ::close(session->imp_lock_fd); // releases the application's session lock
    session->imp_lock_fd = -1;
}

TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context *context, TEEC_SharedMemory *shared_mem) {
    if (context == nullptr || shared_mem == nullptr) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (const auto scripted = next_scripted(KARST_EMU_REGISTER)) {
        return *scripted;
    }
    if (!valid_flags(shared_mem->flags) || shared_mem->buffer == nullptr ||
        shared_mem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const bool direct = registers_memory();
    if (!context_known(context)) {
        return direct ? TEEC_ERROR_GENERIC : TEEC_ERROR_OUT_OF_MEMORY; // no descriptor
    }
    const size_t length = registered_length(shared_mem->size);
    Registration reg{static_cast<uint8_t *>(shared_mem->buffer), length, !direct, false};
    if (!direct && (reg.shared = static_cast<uint8_t *>(std::calloc(1, length))) == nullptr) {
        return TEEC_ERROR_OUT_OF_MEMORY;
    }
    shared_mem->imp_id = g_next_id++;
    shared_mem->imp_ctx = context;
    memory_registered(shared_mem, reg);
    return TEEC_SUCCESS;
}

TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context *context, TEEC_SharedMemory *shared_mem) {
    if (context == nullptr || shared_mem == nullptr) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (const auto scripted = next_scripted(KARST_EMU_REGISTER)) {
        return *scripted;
    }
    if (!valid_flags(shared_mem->flags) || shared_mem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const size_t length = registered_length(shared_mem->size);
    void *memory = context_known(context) ? std::calloc(1, length) : nullptr;
    if (memory == nullptr) {
        return TEEC_ERROR_OUT_OF_MEMORY;
    }
    shared_mem->buffer = memory;
    shared_mem->imp_id = g_next_id++;
    shared_mem->imp_ctx = context;
    memory_registered(shared_mem, {static_cast<uint8_t *>(memory), length, false, true});
    return TEEC_SUCCESS;
}

void TEEC_ReleaseSharedMemory(TEEC_SharedMemory *shared_memory) {
    if (shared_memory == nullptr) {
        return;
    }
    const auto reg = memory_released(shared_memory);
    if (!reg) {
        return;
    }
    if (reg->bounce || reg->allocated) {
        std::free(reg->shared);
    }
    if (reg->allocated) {
        shared_memory->buffer = nullptr;
    }
    shared_memory->imp_id = 0;
    shared_memory->imp_ctx = nullptr;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session *session, uint32_t command_id,
                               TEEC_Operation *operation, uint32_t *return_origin) {
    set_origin(return_origin, TEEC_ORIGIN_API);
    if (session == nullptr) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    TEEC_Operation none{};
    TEEC_Operation *op = operation != nullptr ? operation : &none;
    const uint32_t types = op->paramTypes;
    if ((types >> 16) != 0) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    Params params;
    Window windows[4];
    bool memory_refused = false;
    for (int i = 0; i < 4; ++i) {
        const Refusal r =
            describe(TEEC_PARAM_TYPE_GET(types, i), op->params[i], params[i], windows[i]);
        if (r == Refusal::api) {
            return TEEC_ERROR_BAD_PARAMETERS;
        }
        memory_refused = memory_refused || r == Refusal::driver;
    }
    if (const TEEC_Result refused = driver_answer(*session, memory_refused);
        refused != TEEC_SUCCESS) {
        client_trace(__func__, INVOKE_TRACE_LINE, "TEE_IOC_INVOKE failed");
        set_origin(return_origin, TEEC_ORIGIN_COMMS);
        return refused;
    }
    op->started = 1;
    copy_in(params, windows);
    JournalEntry entry = journal_entry(command_id, types, op, params);
    const TEEC_Result res = run_command(command_id, params);
    copy_out(params, windows);
    write_back(types, op, params, res);
    entry.result = res;
    for (int i = 0; i < 4; ++i) {
        entry.params[i].output_size = params.p[i].is_output() ? params.p[i].reported : 0;
    }
    entry.origin = TEEC_ORIGIN_TRUSTED_APP;
    journal_add(std::move(entry));
    set_origin(return_origin, TEEC_ORIGIN_TRUSTED_APP);
    return res;
}

void TEEC_RequestCancellation(TEEC_Operation *) {}

} // extern "C"
