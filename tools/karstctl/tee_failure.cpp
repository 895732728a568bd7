// SPDX-License-Identifier: Apache-2.0
#include "tee_failure.hpp"

#include <tee_client_api.h>

#include <cstdio>
#include <mutex>

namespace karstctl {

namespace {

struct Name {
    uint32_t value;
    const char *name;
};

#define KARSTCTL_NAME(value)                                                                       \
    { value, #value }

// The result codes and origins of the GlobalPlatform TEE Client API, as tee_client_api.h
// defines them.
constexpr Name CODES[] = {
    KARSTCTL_NAME(TEEC_ERROR_GENERIC),
    KARSTCTL_NAME(TEEC_ERROR_ACCESS_DENIED),
    KARSTCTL_NAME(TEEC_ERROR_CANCEL),
    KARSTCTL_NAME(TEEC_ERROR_ACCESS_CONFLICT),
    KARSTCTL_NAME(TEEC_ERROR_EXCESS_DATA),
    KARSTCTL_NAME(TEEC_ERROR_BAD_FORMAT),
    KARSTCTL_NAME(TEEC_ERROR_BAD_PARAMETERS),
    KARSTCTL_NAME(TEEC_ERROR_BAD_STATE),
    KARSTCTL_NAME(TEEC_ERROR_ITEM_NOT_FOUND),
    KARSTCTL_NAME(TEEC_ERROR_NOT_IMPLEMENTED),
    KARSTCTL_NAME(TEEC_ERROR_NOT_SUPPORTED),
    KARSTCTL_NAME(TEEC_ERROR_NO_DATA),
    KARSTCTL_NAME(TEEC_ERROR_OUT_OF_MEMORY),
    KARSTCTL_NAME(TEEC_ERROR_BUSY),
    KARSTCTL_NAME(TEEC_ERROR_COMMUNICATION),
    KARSTCTL_NAME(TEEC_ERROR_SECURITY),
    KARSTCTL_NAME(TEEC_ERROR_SHORT_BUFFER),
#ifdef TEEC_ERROR_EXTERNAL_CANCEL
    KARSTCTL_NAME(TEEC_ERROR_EXTERNAL_CANCEL),
#endif
#ifdef TEEC_ERROR_TARGET_DEAD
    KARSTCTL_NAME(TEEC_ERROR_TARGET_DEAD),
#endif
#ifdef TEEC_ERROR_STORAGE_NOT_AVAILABLE
    KARSTCTL_NAME(TEEC_ERROR_STORAGE_NOT_AVAILABLE),
#endif
};
constexpr Name ORIGINS[] = {
    KARSTCTL_NAME(TEEC_ORIGIN_API),
    KARSTCTL_NAME(TEEC_ORIGIN_COMMS),
    KARSTCTL_NAME(TEEC_ORIGIN_TEE),
    KARSTCTL_NAME(TEEC_ORIGIN_TRUSTED_APP),
};

#undef KARSTCTL_NAME

// value by its name in names, beside its number (eight hexadecimal digits with wide).
std::string described(const Name *begin, const Name *end, uint32_t value, bool wide) {
    char number[16];
    std::snprintf(number, sizeof number, wide ? "0x%08x" : "0x%x", value);
    for (const Name *n = begin; n != end; ++n) {
        if (n->value == value) {
            return std::string(n->name) + " (" + number + ")";
        }
    }
    return number;
}

// The record, shared with the update's thread.
std::mutex g_mutex;
std::optional<TeeFailure> g_failure;

TEEC_Result recorded(const char *call, TEEC_Result code, const uint32_t *origin) {
    if (code != TEEC_SUCCESS) {
        const std::lock_guard lock(g_mutex);
        g_failure = TeeFailure{call, code,
                               origin == nullptr ? std::nullopt : std::optional<uint32_t>(*origin)};
    }
    return code;
}

} // namespace

void forget_tee_failure() {
    const std::lock_guard lock(g_mutex);
    g_failure.reset();
}

std::optional<TeeFailure> last_tee_failure() {
    const std::lock_guard lock(g_mutex);
    return g_failure;
}

std::string describe_code(uint32_t code) {
    return described(std::begin(CODES), std::end(CODES), code, true);
}

std::string describe_origin(uint32_t origin) {
    return described(std::begin(ORIGINS), std::end(ORIGINS), origin, false);
}

std::string describe(const TeeFailure &failure) {
    std::string text = std::string(failure.call) + ": " + describe_code(failure.code);
    if (failure.origin) {
        text += " from " + describe_origin(*failure.origin);
    }
    return text;
}

} // namespace karstctl

// The client library's calls as the library makes them (the linker's --wrap): each is passed on
// unchanged, its failure recorded.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
decltype(TEEC_InitializeContext) __real_TEEC_InitializeContext;
decltype(TEEC_OpenSession) __real_TEEC_OpenSession;
decltype(TEEC_RegisterSharedMemory) __real_TEEC_RegisterSharedMemory;
decltype(TEEC_AllocateSharedMemory) __real_TEEC_AllocateSharedMemory;
decltype(TEEC_InvokeCommand) __real_TEEC_InvokeCommand;

TEEC_Result __wrap_TEEC_InitializeContext(const char *name, TEEC_Context *context) {
    return karstctl::recorded("TEEC_InitializeContext",
                              __real_TEEC_InitializeContext(name, context), nullptr);
}

TEEC_Result __wrap_TEEC_OpenSession(TEEC_Context *context, TEEC_Session *session,
                                    const TEEC_UUID *destination, uint32_t method, const void *data,
                                    TEEC_Operation *operation, uint32_t *origin) {
    uint32_t own = 0;
    uint32_t *where = origin == nullptr ? &own : origin;
    return karstctl::recorded(
        "TEEC_OpenSession",
        __real_TEEC_OpenSession(context, session, destination, method, data, operation, where),
        where);
}

TEEC_Result __wrap_TEEC_RegisterSharedMemory(TEEC_Context *context, TEEC_SharedMemory *memory) {
    return karstctl::recorded("TEEC_RegisterSharedMemory",
                              __real_TEEC_RegisterSharedMemory(context, memory), nullptr);
}

TEEC_Result __wrap_TEEC_AllocateSharedMemory(TEEC_Context *context, TEEC_SharedMemory *memory) {
    return karstctl::recorded("TEEC_AllocateSharedMemory",
                              __real_TEEC_AllocateSharedMemory(context, memory), nullptr);
}

TEEC_Result __wrap_TEEC_InvokeCommand(TEEC_Session *session, uint32_t command,
                                      TEEC_Operation *operation, uint32_t *origin) {
    uint32_t own = 0;
    uint32_t *where = origin == nullptr ? &own : origin;
    return karstctl::recorded("TEEC_InvokeCommand",
                              __real_TEEC_InvokeCommand(session, command, operation, where), where);
}
}
// NOLINTEND(readability-identifier-naming)
