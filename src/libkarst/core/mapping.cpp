#include "mapping.hpp"

#include "fault_injection.hpp"

namespace karst {

void *map_file(int fd, std::size_t length, off_t offset) {
    if (length == 0 || fault::inject(fault::Kind::mapping)) {
        return MAP_FAILED;
    }
    const int flags = fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_PRIVATE;
    return ::mmap(nullptr, length, PROT_READ | PROT_WRITE, flags, fd, fd < 0 ? 0 : offset);
}

} // namespace karst
