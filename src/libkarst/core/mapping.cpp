// SPDX-License-Identifier: Apache-2.0
#include "mapping.hpp"

#include "fault_injection.hpp"

namespace karst {

void *map_file(int fd, std::size_t length, off_t offset) {
    if (length == 0 || fault::inject(fault::Kind::mapping)) {
        return MAP_FAILED;
    }
    const int flags = fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_PRIVATE;
    void *p = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, flags, fd, fd < 0 ? 0 : offset);
    if (p != MAP_FAILED) {
        fault::track(fault::Kind::mapping, 1);
    }
    return p;
}

void unmap_file(void *data, std::size_t length) {
    ::munmap(data, length);
    fault::track(fault::Kind::mapping, -1);
}

} // namespace karst
