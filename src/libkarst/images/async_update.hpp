// SPDX-License-Identifier: Apache-2.0
// The asynchronous update's thread body, visible to the library's own tests.
#pragma once

extern "C" {
// Runs the update of the context (an img_update_ctx in state IMG_UPD_QUEUED) and stores its
// result in the context's state; ends at once for a null context or another state.
void *img_update_thread(void *ctx);
}
