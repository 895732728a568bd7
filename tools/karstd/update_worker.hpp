// SPDX-License-Identifier: Apache-2.0
// The process that carries one update, started by StartUpdate: it reads the image from the
// caller's descriptor into its own memory, opens the secure world's session, authenticates the
// image for the type's staging slot, uploads it there, reports how far it got, then programs
// the device in the same session and records the result. It leaves the daemon's process group
// and ignores the signals that stop services, so that neither a client that goes away nor a
// restart of karstd interrupts the programming of a device.
#pragma once

#include "image_types.hpp"

#include <sys/types.h>

namespace karstd {

// What the update's process reports, one byte, before the daemon answers StartUpdate.
enum class Outcome : char {
    started = 's',       // authenticated and uploaded; the device is being programmed
    bad_image = 'i',     // the descriptor gave no image (unreadable, empty or too large)
    busy = 'b',          // another program holds the secure world's session
    bad_signature = 'x', // the image failed authentication
    failed = 'f',        // no session, or the upload failed
};

// The largest image of any type (the BIOS flash).
constexpr size_t IMAGE_MAX = size_t{64} << 20;

struct UpdateJob {
    ImageType type;
    int image_fd;  // the caller's image
    int record_fd; // the update's record, locked
    int report_fd; // where the outcome goes
};

// Starts the update's process; its id, or -1. The caller closes its copies of the descriptors.
pid_t start_worker(const UpdateJob &job);

} // namespace karstd
