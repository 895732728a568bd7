// image update --async: the update runs in a process of its own session, so that Ctrl-C at the
// terminal stops only the watching; karstctl shows its progress until it ends.
#pragma once

#include <cstdint>
#include <string>

namespace karstctl {

struct AsyncUpdate {
    uint32_t img_id = 0;
    uint32_t flags = 0;
    void *arg = nullptr;
    uint32_t size = 0;
    uint64_t total = 0;    // image bytes, when known (0 otherwise)
    std::string type_name; // for the message that tells how to follow a left update
};

// Runs the update and returns karstctl's exit status for it.
int run_async_update(const AsyncUpdate &update);

} // namespace karstctl
