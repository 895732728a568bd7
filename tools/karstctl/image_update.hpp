// SPDX-License-Identifier: Apache-2.0
// image update of the types whose update keeps a progress file: the update runs in a process
// of its own session (pta20_img_update_async there), so that Ctrl-C at the terminal stops only
// the watching, never the programming of a device.
#pragma once

#include <cstdint>
#include <string>

namespace karstctl {

struct UpdateJob {
    uint32_t img_id = 0;
    uint32_t flags = 0;
    void *arg = nullptr;
    uint32_t size = 0;
    uint64_t total = 0;    // image bytes, when known (0 otherwise)
    std::string type_name; // for the command that follows a running update
};

// Runs the update and shows its progress on standard error until it ends; karstctl's exit
// status for it (Status::stopped_waiting after Ctrl-C, the update going on).
int watch_update(const UpdateJob &job);
// Starts the update and returns as soon as it runs (its messages from then on are discarded),
// telling on standard error how to follow it; karstctl's exit status.
int start_update(const UpdateJob &job);

} // namespace karstctl
