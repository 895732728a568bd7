// SPDX-License-Identifier: Apache-2.0
// What the driver stand-in keeps: the descriptors it handed out (contexts, shared memory) and the
// sessions and memory of each context.
#pragma once

namespace karst::emu::driver {

// N for "/dev/teeN", -1 for any other path.
int device_number(const char *path);
// A new context's descriptor, or -1 with errno set.
int open_context();
bool is_context(int fd);
// One ioctl on a context: its result, or -1 with errno set, as the driver answers.
int context_ioctl(int fd, unsigned long request, void *arg);
// A descriptor about to be closed: a context closes its sessions and goes, a registration ends.
void forget_descriptor(int fd);

} // namespace karst::emu::driver
