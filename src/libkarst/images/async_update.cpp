// SPDX-License-Identifier: Apache-2.0
// The asynchronous update: pta20_img_update on a detached thread, and the poll of its progress.
//
// The caller's context is shared by two threads without a lock: the update thread writes
// state, the caller's thread reads it and writes progress. Both are single aligned 32-bit words
// of the caller's structure; every access to them goes through std::atomic_ref, so the sharing
// is well defined without changing the structure's layout.
#include "async_update.hpp"

#include "karst.h"

#include "image_api.hpp"

#include "core/boundary.hpp"
#include "core/fault_injection.hpp"
#include "core/log.hpp"

#include <algorithm>
#include <atomic>
#include <pthread.h>

using namespace karst;
using namespace karst::images;

namespace {

constexpr int32_t PROGRESS_CEILING = 98; // the end of an update shows in state, not here

std::atomic_ref<int32_t> state_of(img_update_ctx *ctx) {
    return std::atomic_ref<int32_t>(ctx->state);
}
std::atomic_ref<int32_t> progress_of(img_update_ctx *ctx) {
    return std::atomic_ref<int32_t>(ctx->progress);
}

} // namespace

// Nothing before the claim can throw; an exception after it ends the update as failed.
extern "C" void *img_update_thread(void *arg) try {
    auto *ctx = static_cast<img_update_ctx *>(arg);
    if (ctx == nullptr) {
        return nullptr;
    }
    int32_t queued = IMG_UPD_QUEUED;
    if (!state_of(ctx).compare_exchange_strong(queued, IMG_UPD_RUNNING)) {
        return nullptr;
    }
    const int32_t result = pta20_img_update(ctx->img, ctx->flags, ctx->arg, ctx->size);
    // The last touch of the context: from here on the caller may reuse or free it.
    state_of(ctx).store(result == 0 ? 0 : -1);
    return nullptr;
} catch (...) {
    log::exception(__func__, __LINE__);
    state_of(static_cast<img_update_ctx *>(arg)).store(-1);
    return nullptr;
}

extern "C" int pta20_img_update_async(img_update_ctx *ctx) try {
    if (ctx == nullptr) {
        return -1;
    }
    // Claiming the idle context is one step, so two starters cannot both run an update on it.
    int32_t idle = IMG_UPD_IDLE;
    if (!state_of(ctx).compare_exchange_strong(idle, IMG_UPD_QUEUED)) {
        return -1;
    }
    if (progress_message(ctx->img, 1) != 0) {
        KARST_ERROR(IMAGE_API_FILE, "clean progress file failed\n");
        state_of(ctx).store(IMG_UPD_IDLE);
        return -1;
    }
    pthread_t thread;
    if (fault::inject(fault::Kind::thread) ||
        pthread_create(&thread, nullptr, img_update_thread, ctx) != 0) {
        KARST_ERROR(IMAGE_API_FILE, "create thread failed\n");
        state_of(ctx).store(IMG_UPD_IDLE);
        return -1;
    }
    pthread_detach(thread);
    return 0;
} catch (...) {
    // Only the cleaning of the progress file, after the claim, can throw: the context is idle
    // again.
    log::exception(__func__, __LINE__);
    state_of(ctx).store(IMG_UPD_IDLE);
    return -1;
}

extern "C" int pta20_img_updprogress(img_update_ctx *ctx) try {
    if (ctx == nullptr) {
        return -1;
    }
    const int32_t state = state_of(ctx).load();
    if (state >= IMG_UPD_QUEUED) {
        const int32_t p = progress_message(ctx->img, 0);
        if (p > progress_of(ctx).load()) {
            progress_of(ctx).store(std::min(p, PROGRESS_CEILING));
        }
    } else if (state < 0) {
        progress_of(ctx).store(0);
    }
    return progress_of(ctx).load();
} catch (...) {
    return KARST_CAUGHT(-1);
}
