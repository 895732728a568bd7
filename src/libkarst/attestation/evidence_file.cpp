#include "evidence_file.hpp"

#include "core/file_handle.hpp"

#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace karst::att {

EvidenceRead read_evidence_file(const std::string &path, HeapBuffer &content) {
    Fd fd(fd_open(path.c_str(), O_RDONLY));
    if (!fd) {
        return EvidenceRead::open_failed;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || st.st_size <= 0 ||
        static_cast<std::uint64_t>(st.st_size) > UINT32_MAX) {
        return EvidenceRead::bad_size;
    }
    const auto size = static_cast<std::size_t>(st.st_size);
    if (!content.allocate(size, true)) {
        return EvidenceRead::no_memory;
    }
    const ssize_t got = ::read(fd.get(), content.data(), size);
    if (got < 0 || static_cast<std::size_t>(got) != size) {
        return EvidenceRead::short_read;
    }
    return EvidenceRead::ok;
}

} // namespace karst::att
