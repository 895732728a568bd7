// SPDX-License-Identifier: Apache-2.0
// What the driver stand-in answers for the calls it interposes: the descriptors it handed out
// (contexts, shared memory), their ioctls and closes, and the client's mappings of its memory.
#pragma once

namespace karst::emu::driver {

// N for "/dev/teeN", -1 for any other path.
int device_number(const char *path);
// A new context's descriptor, or -1 with errno set.
int open_context();
bool is_context(int fd);
// One ioctl on a context: its result, or -1 with errno set, as the driver answers.
int context_ioctl(int fd, unsigned long request, void *arg);
// A descriptor about to be closed: a context closes its sessions and goes, shared memory goes
// once nothing refers to it.
void forget_descriptor(int fd);
// The client mapped descriptor fd at address (MAP_FAILED: it did not), or unmapped address:
// allocated shared memory lasts while the client maps it.
void note_mapping(int fd, void *address);
void forget_mapping(void *address);

} // namespace karst::emu::driver
