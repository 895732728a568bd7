// Whole-file read, buffer write and bounded string copy, shared by the command routines.
#include "karst.h"

#include "boundary.hpp"
#include "file_handle.hpp"
#include "heap_buffer.hpp"
#include "log.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/types.h>

namespace {

constexpr size_t READ_CHUNK = 1024;

} // namespace

extern "C" int readbin(const char *path, uint8_t **buffer_out, uint32_t *size_out) try {
    karst::File file = karst::File::open(path, "rb");
    if (!file) {
        KARST_E("Failed to open file:%s\n", path);
        return -1;
    }

    // A stream that cannot be measured (a pipe, a directory) or a file too large for the 32-bit
    // size is reported like a file that cannot be read whole.
    off_t end = -1;
    if (fseeko(file.get(), 0, SEEK_END) == 0) {
        end = ftello(file.get());
    }
    if (end < 0 || static_cast<uint64_t>(end) > UINT32_MAX || fseeko(file.get(), 0, SEEK_SET)) {
        KARST_E("Failed to read all data\n");
        return -1;
    }
    const auto size = static_cast<uint32_t>(end);
    *size_out = size;

    karst::HeapBuffer buffer;
    if (!buffer.allocate(size)) {
        KARST_E("Failed to allocate buffer\n");
        return -1;
    }

    size_t total = 0;
    while (total < size) {
        const size_t want = std::min<size_t>(READ_CHUNK, size - total);
        const size_t got = std::fread(buffer.data() + total, 1, want, file.get());
        if (got == 0) {
            break;
        }
        total += got;
    }
    file.reset();

    if (total != size) {
        KARST_E("Failed to read all data\n");
        *buffer_out = nullptr;
        return -1;
    }
    *buffer_out = buffer.release();
    return 0;
}
KARST_BOUNDARY(-1)

extern "C" int writebin(const char *path, const void *buffer, uint32_t size) try {
    karst::File file = karst::File::open(path, "wb");
    if (!file) {
        KARST_E("Failed to open file:%s\n", path);
        return -1;
    }
    if (size > 0) {
        std::fwrite(buffer, size, 1, file.get());
    }
    return 0;
}
KARST_BOUNDARY(-1)

extern "C" void xstrcpy(char *destination, const char *source, int capacity) try {
    const size_t length = std::strlen(source);
    if (capacity <= 0) {
        return; // no room even for the terminating zero
    }
    if (static_cast<size_t>(capacity) <= length) {
        KARST_NAMED("the length is too small.\n");
        KARST_NAMED("src string is %s\n", source);
        std::memcpy(destination, source, static_cast<size_t>(capacity) - 1);
        destination[capacity - 1] = '\0';
        return;
    }
    std::memcpy(destination, source, length + 1);
}
KARST_BOUNDARY_VOID
