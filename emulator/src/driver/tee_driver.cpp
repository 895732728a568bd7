// SPDX-License-Identifier: Apache-2.0
// A stand-in for the kernel's TEE driver, preloaded under a real TEE client library (libteec):
// it answers the open of /dev/tee0, the driver's ioctls, the closes of its descriptors and the
// client's mappings of its memory, with the driver's own checks, and passes sessions and invokes
// on to the emulator's client library (linked in, not exported), so that the same application
// model, journal and scripts answer.
//
// Capabilities: registered memory unless KARST_EMU_REGISTERED_MEMORY=0, null memory references
// when KARST_EMU_MEMREF_NULL=1.
// The interposed names are the C library's own, open and open64, mmap and mmap64 all, whatever
// the build's file offset size (under 64-bit offsets the headers would rename open to open64).
#undef _FILE_OFFSET_BITS
#include "driver_state.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/tee.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

using namespace karst::emu::driver;

namespace {

template <typename F> F next_symbol(const char *name) {
    return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

using OpenFn = int (*)(const char *, int, ...);

int open_device(const char *path, int flags, mode_t mode, OpenFn real) {
    if (const int device = device_number(path); device >= 0) {
        return device == 0 ? open_context() : (errno = ENOENT, -1);
    }
    return real(path, flags, mode);
}

mode_t mode_argument(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    static const auto real = next_symbol<OpenFn>("open");
    return open_device(path, flags, mode, real);
}

__attribute__((visibility("default"))) int open64(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    static const auto real = next_symbol<OpenFn>("open64");
    return open_device(path, flags, mode, real);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (is_context(fd)) {
        return context_ioctl(fd, request, arg);
    }
    using IoctlFn = int (*)(int, unsigned long, ...);
    static const auto real = next_symbol<IoctlFn>("ioctl");
    return real(fd, request, arg);
}

__attribute__((visibility("default"))) int close(int fd) {
    forget_descriptor(fd);
    using CloseFn = int (*)(int);
    static const auto real = next_symbol<CloseFn>("close");
    return real(fd);
}

__attribute__((visibility("default"))) void *mmap(void *address, size_t length, int prot, int flags,
                                                  int fd, off_t offset) {
    using MapFn = void *(*)(void *, size_t, int, int, int, off_t);
    static const auto real = next_symbol<MapFn>("mmap");
    void *mapped = real(address, length, prot, flags, fd, offset);
    note_mapping(fd, mapped);
    return mapped;
}

__attribute__((visibility("default"))) void *mmap64(void *address, size_t length, int prot,
                                                    int flags, int fd, off64_t offset) {
    using Map64Fn = void *(*)(void *, size_t, int, int, int, off64_t);
    static const auto real = next_symbol<Map64Fn>("mmap64");
    void *mapped = real(address, length, prot, flags, fd, offset);
    note_mapping(fd, mapped);
    return mapped;
}

__attribute__((visibility("default"))) int munmap(void *address, size_t length) {
    forget_mapping(address);
    using UnmapFn = int (*)(void *, size_t);
    static const auto real = next_symbol<UnmapFn>("munmap");
    return real(address, length);
}

} // extern "C"
