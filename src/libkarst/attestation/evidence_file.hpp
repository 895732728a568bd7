// One evidence file read whole: opened through the board file checks (never through a link,
// never anything but a regular file of root's or this user's), measured from the open file,
// read in one call. What goes wrong is reported at the collecting routine's site as a file of
// its kind ("certificate", "measurement", "Root CA").
#pragma once

#include "core/heap_buffer.hpp"
#include "core/log.hpp"

#include <string_view>

namespace karst::att {

enum class EvidenceRead {
    ok,
    missing, // nothing at the path; reported only when asked
    skipped, // refused, or unusable: reported
};

// Reads the file at board_path into content (a zero-filled buffer of the file's size).
EvidenceRead read_evidence_file(std::string_view board_path, const char *kind, HeapBuffer &content,
                                log::Site site, bool report_missing = true);

} // namespace karst::att
