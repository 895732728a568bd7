// SPDX-License-Identifier: Apache-2.0
#include "tee_session.hpp"

#include "boundary.hpp"
#include "karst.h"
#include "log.hpp"

#include <atomic>
#include <chrono>
#include <thread>

namespace karst::tee {
namespace {

constexpr TEEC_UUID PTA_DALU_UUID = {
    0xCCF5BD24, 0xE290, 0x468E, {0x81, 0x12, 0xFD, 0x09, 0x96, 0xC4, 0xA8, 0xDF}};
constexpr int PTA_OPEN_RETRIES = 3;
constexpr int PTA_OPEN_RETRY_DELAY_MS = 100;

#if defined(KARST_TEEC_CONTEXT_FD_FIRST)
constinit TEEC_Context g_context = [] {
    TEEC_Context closed{};
    closed.fd = -1;
    return closed;
}();
void mark_descriptor_closed() {
    g_context.fd = -1;
}
#else
TEEC_Context g_context{};
void mark_descriptor_closed() {}
#endif
TEEC_Session g_session{};
std::atomic<bool> g_context_open{false};
std::atomic<bool> g_session_open{false};

// The thread that holds the session, from its claim until the context is finalised again; no
// thread (the default id) while none does. The busy test and the claim are one atomic step, so
// that of two threads that open at the same moment exactly one proceeds, and only the holder
// can close what it opened.
std::atomic<std::thread::id> g_owner{};

void release_claim() {
    g_owner.store(std::thread::id(), std::memory_order_release);
}

// Finalises the context once (a second finalize would close a descriptor that may by then belong
// to someone else) and gives up the claim.
void finalize_context() {
    if (g_context_open.exchange(false, std::memory_order_acq_rel)) {
        TEEC_FinalizeContext(&g_context);
    }
    mark_descriptor_closed();
    release_claim();
}

} // namespace

TEEC_Context &context() {
    return g_context;
}
TEEC_Session &session() {
    return g_session;
}
bool context_open() {
    return g_context_open.load(std::memory_order_acquire);
}
bool session_open() {
    return g_session_open.load(std::memory_order_acquire);
}
bool is_open() {
    return g_owner.load(std::memory_order_acquire) != std::thread::id();
}

int context_fd() {
#if defined(KARST_TEEC_CONTEXT_FD_FIRST)
    return is_open() ? g_context.fd : -1;
#else
    return -1;
#endif
}

} // namespace karst::tee

using namespace karst::tee;

extern "C" uint32_t pta_open_session(void) try {
    std::thread::id none;
    if (!g_owner.compare_exchange_strong(none, std::this_thread::get_id(),
                                         std::memory_order_acq_rel)) {
        KARST_I("pta_open_session: TEE is busy");
        return TEEC_ERROR_BUSY;
    }

    TEEC_Result res = TEEC_InitializeContext(nullptr, &g_context);
    if (res != TEEC_SUCCESS) {
        KARST_E("TEEC_InitializeContext failed with code 0x%x\n", res);
        mark_descriptor_closed();
        release_claim();
        return res;
    }
    g_context_open.store(true, std::memory_order_release);

    uint32_t origin = 0;
    for (int attempt = 1; attempt <= PTA_OPEN_RETRIES; ++attempt) {
        res = TEEC_OpenSession(&g_context, &g_session, &PTA_DALU_UUID, TEEC_LOGIN_PUBLIC, nullptr,
                               nullptr, &origin);
        if (res != TEEC_ERROR_BUSY) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(PTA_OPEN_RETRY_DELAY_MS));
        KARST_E("TEEC_Opensession retries %d time(s)\n", attempt);
    }

    if (res != TEEC_SUCCESS) {
        finalize_context();
        KARST_E("TEEC_Opensession failed with code 0x%x origin 0x%x\n", res, origin);
        return res;
    }
    g_session_open.store(true, std::memory_order_release);
    return TEEC_SUCCESS;
} catch (...) {
    return KARST_CAUGHT(TEEC_ERROR_GENERIC);
}

extern "C" void pta_close_session(void) try {
    // Only the thread that holds the session may close it; a close from any other thread (or
    // with nothing open) changes nothing, so it cannot tear down a context that another thread
    // is still using or opening.
    if (g_owner.load(std::memory_order_acquire) != std::this_thread::get_id()) {
        return;
    }
    if (g_session_open.exchange(false, std::memory_order_acq_rel)) {
        TEEC_CloseSession(&g_session);
    }
    finalize_context();
} catch (...) {
    KARST_CAUGHT_VOID();
}
