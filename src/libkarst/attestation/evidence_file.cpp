#include "evidence_file.hpp"

#include "core/board_files.hpp"
#include "core/run_root.hpp"

#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace karst::att {

EvidenceRead read_evidence_file(std::string_view board_path, const char *kind, HeapBuffer &content,
                                log::Site site, bool report_missing) {
    const board::Opened file = board::open_file(board_path, O_RDONLY, site);
    const std::string path = platform_path(board_path);
    if (file.found == board::Found::refused) {
        return EvidenceRead::skipped;
    }
    if (!file) {
        if (file.found == board::Found::missing && !report_missing) {
            return EvidenceRead::missing;
        }
        KARST_E_AT(site, "Failed to open %s file: %s\n", kind, path.c_str());
        return EvidenceRead::skipped;
    }
    struct stat st {};
    if (::fstat(file.get(), &st) != 0 || st.st_size <= 0 ||
        static_cast<std::uint64_t>(st.st_size) > UINT32_MAX) {
        KARST_E_AT(site, "Invalid %s file size: %s\n", kind, path.c_str());
        return EvidenceRead::skipped;
    }
    const auto size = static_cast<std::size_t>(st.st_size);
    if (!content.allocate(size, true)) {
        KARST_E_AT(site, "Failed to allocate memory for %s buffer\n", kind);
        return EvidenceRead::skipped;
    }
    const ssize_t got = ::read(file.get(), content.data(), size);
    if (got < 0 || static_cast<std::size_t>(got) != size) {
        KARST_E_AT(site, "Failed to read complete %s file: %s\n", kind, path.c_str());
        return EvidenceRead::skipped;
    }
    return EvidenceRead::ok;
}

} // namespace karst::att
