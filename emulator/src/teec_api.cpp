// SPDX-License-Identifier: Apache-2.0
// The GlobalPlatform TEE Client API in front of the application model.
//
// Contexts hold a real descriptor (the state directory), so descriptor leaks show. Sessions
// hold the application's session lock, a whole-file lock in the state directory: one session at
// a time across all processes, released when the holder closes it or dies. Shared memory is the
// caller's own memory; the application reads and writes it in place.
#include "answers.hpp"
#include "application.hpp"
#include "controls.hpp"
#include "state_dir.hpp"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <sys/file.h>
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

// Checks one parameter against its type and its registered parent, and describes it to the
// application. False: TEEC_ERROR_BAD_PARAMETERS.
bool describe(uint32_t type, const TEEC_Parameter &in, Param &out) {
    if (type == TEEC_NONE) {
        return true;
    }
    if (is_value(type)) {
        out.kind = static_cast<Kind>(type);
        out.value = in.value;
        return true;
    }
    if (is_temp(type)) {
        if (in.tmpref.buffer == nullptr && in.tmpref.size != 0) {
            return false;
        }
        out.kind = memory_kind(direction_of(type));
        out.memory = {static_cast<uint8_t *>(in.tmpref.buffer), in.tmpref.size};
        out.reported = in.tmpref.size;
        return true;
    }
    if (type != TEEC_MEMREF_WHOLE && !is_partial(type)) {
        return false;
    }
    const auto reg = registration_of(in.memref.parent);
    if (!reg) {
        return false;
    }
    uint32_t direction = 0;
    size_t offset = 0;
    size_t size = reg->size;
    if (type == TEEC_MEMREF_WHOLE) {
        direction = reg->flags & (TEEC_MEM_INPUT | TEEC_MEM_OUTPUT);
        if (direction == 0) {
            return false;
        }
    } else {
        direction = direction_of(type);
        if ((reg->flags & direction) != direction) {
            return false;
        }
        offset = in.memref.offset;
        size = in.memref.size;
        if (offset > reg->size || size > reg->size - offset) {
            return false;
        }
    }
    out.kind = memory_kind(direction);
    out.memory = {static_cast<uint8_t *>(reg->buffer) + offset, size};
    out.reported = size;
    return true;
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
                if (const auto reg = registration_of(op->params[i].memref.parent)) {
                    j.flags = reg->flags;
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
    if (context == nullptr || session == nullptr || destination == nullptr ||
        !context_known(context)) {
        return TEEC_ERROR_BAD_PARAMETERS;
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
    if (session == nullptr || !session_known(session)) {
        return;
    }
    session_closed(session);
    ::close(session->imp_lock_fd); // releases the application's session lock
    session->imp_lock_fd = -1;
}

TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context *context, TEEC_SharedMemory *shared_mem) {
    if (context == nullptr || shared_mem == nullptr || !context_known(context)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (const auto scripted = next_scripted(KARST_EMU_REGISTER)) {
        return *scripted;
    }
    if ((shared_mem->flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) != 0 ||
        (shared_mem->buffer == nullptr && shared_mem->size != 0) ||
        shared_mem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    shared_mem->imp_id = g_next_id++;
    shared_mem->imp_ctx = context;
    memory_registered(shared_mem, {shared_mem->buffer, shared_mem->size, shared_mem->flags});
    return TEEC_SUCCESS;
}

TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context *, TEEC_SharedMemory *) {
    // The library always registers its own memory; allocation by the client library is not
    // offered.
    return TEEC_ERROR_NOT_SUPPORTED;
}

void TEEC_ReleaseSharedMemory(TEEC_SharedMemory *shared_memory) {
    if (shared_memory == nullptr || !memory_released(shared_memory)) {
        return;
    }
    shared_memory->imp_id = 0;
    shared_memory->imp_ctx = nullptr;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session *session, uint32_t command_id,
                               TEEC_Operation *operation, uint32_t *return_origin) {
    set_origin(return_origin, TEEC_ORIGIN_API);
    if (session == nullptr || !session_known(session)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    TEEC_Operation none{};
    TEEC_Operation *op = operation != nullptr ? operation : &none;
    const uint32_t types = op->paramTypes;
    if ((types >> 16) != 0) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    Params params;
    for (int i = 0; i < 4; ++i) {
        if (!describe(TEEC_PARAM_TYPE_GET(types, i), op->params[i], params[i])) {
            return TEEC_ERROR_BAD_PARAMETERS;
        }
    }
    op->started = 1;

    JournalEntry entry = journal_entry(command_id, types, op, params);
    TEEC_Result res = TEEC_SUCCESS;
    uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
    if (const auto scripted = next_scripted(KARST_EMU_INVOKE)) {
        res = *scripted;
    } else if (const auto answer = answer_for(command_id)) {
        Param &out = params[answer->param];
        res = out.is_output() ? out.put(answer->data.data(), answer->data.size())
                              : TEEC_ERROR_BAD_PARAMETERS;
    } else {
        res = application_invoke(command_id, params);
    }
    write_back(types, op, params, res);
    entry.result = res;
    for (int i = 0; i < 4; ++i) {
        entry.params[i].output_size = params.p[i].is_output() ? params.p[i].reported : 0;
    }
    entry.origin = origin;
    journal_add(std::move(entry));
    set_origin(return_origin, origin);
    return res;
}

void TEEC_RequestCancellation(TEEC_Operation *) {}

} // extern "C"
