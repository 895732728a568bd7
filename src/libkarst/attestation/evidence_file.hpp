// One evidence file read whole: opened read-only, measured from the open file, read in one call.
#pragma once

#include "core/heap_buffer.hpp"

#include <string>

namespace karst::att {

enum class EvidenceRead {
    ok,
    open_failed, // the file cannot be opened
    bad_size,    // its size cannot be had, is 0, or exceeds 32 bits
    no_memory,   // no buffer for its content
    short_read,  // fewer bytes came than its size
};

// Reads the file at path into content (a zero-filled buffer of the file's size).
EvidenceRead read_evidence_file(const std::string &path, HeapBuffer &content);

} // namespace karst::att
