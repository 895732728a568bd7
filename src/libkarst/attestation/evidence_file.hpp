// SPDX-License-Identifier: Apache-2.0
// Evidence files as the attestation dump takes them. A file is opened through the board file
// checks (never through a link, never anything but a regular file of root's or this user's),
// measured from the open file and read in one call; whether it can be used is decided here once,
// and what goes wrong is reported at the collecting routine's site as a file of its kind
// ("certificate", "measurement", "Root CA"). Evidence that is not there at all is no fault: it is
// noted in one information line, "SPDM <what> not found: <path>".
#pragma once

#include "core/file_handle.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace karst::att {

// The buffer records are packed into: capacity bytes at data, *used of them filled.
struct RecordBuffer {
    std::uint8_t *data;
    std::uint32_t capacity;
    std::uint32_t *used;
};

// The information line for evidence that is not there.
void note_missing(const char *what, std::string_view board_path, log::Site site);

// Reads the file at board_path into content (a zero-filled buffer of the file's size). False
// when it cannot be used; a missing file is reported as an open failure, or, given missing_as,
// noted as missing_as (note_missing).
bool read_evidence_file(std::string_view board_path, const char *kind, HeapBuffer &content,
                        log::Site site, const char *missing_as = nullptr);

// The listing of the evidence directory at board_dir; a missing one is noted as what.
Directory open_evidence_directory(std::string_view board_dir, const char *what, log::Site site);

// Appends a record for each "<name><extension>" file of the listing of board_dir (the name as
// its key, the file as its value) while records stays below SPDM_KLV_MAX_RECORDS, counting
// them in records. A file that cannot be read or does not fit is reported and left out.
void append_directory(DIR *listing, const std::string &board_dir, std::string_view extension,
                      const char *kind, const RecordBuffer &out, std::uint32_t &records,
                      log::Site site);

} // namespace karst::att
