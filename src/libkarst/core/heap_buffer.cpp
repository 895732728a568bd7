// SPDX-License-Identifier: Apache-2.0
#include "heap_buffer.hpp"

#include "fault_injection.hpp"

#include <cstring>

namespace karst {

void *heap_allocate(std::size_t size, bool zeroed) {
    if (fault::inject(fault::Kind::heap)) {
        return nullptr;
    }
    const std::size_t n = size == 0 ? 1 : size;
    return zeroed ? std::calloc(1, n) : std::malloc(n);
}

void wipe_memory(void *data, std::size_t size) {
    if (data != nullptr && size > 0) {
        ::explicit_bzero(data, size);
    }
}

} // namespace karst
