// SPDX-License-Identifier: Apache-2.0
// An answer of the secure world kept whole in a fresh board file ("w+"), for a routine that hands
// the file on: the dump's result, the retrieved data block. The write is checked through the
// close, so a file that lacks any of its bytes is never handed on.
#pragma once

#include "core/board_files.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

#include <string>
#include <string_view>

namespace karst::att {

// How a file that could not be opened is reported: as an error of the routine, or as a bare line.
enum class OpenFailure { error, plain };

// Writes all of answer into a fresh file at board_path. False, reported at site, when it could
// not: a refusal with its reason, an open that failed as "Failed to open file (%s)" (worded as
// open_failure says), a write that did not reach the file as "Failed to write file (%s)".
inline bool write_answer_file(std::string_view board_path, const HeapBuffer &answer,
                              OpenFailure open_failure, log::Site site) {
    const std::string path = platform_path(board_path);
    board::Stream file = board::create_stream(board_path, "w+", site);
    if (!file) {
        if (file.reported()) {
            return false;
        }
        if (open_failure == OpenFailure::plain) {
            KARST_PRINT("Failed to open file (%s)\n", path.c_str());
        } else {
            KARST_E_AT(site, "Failed to open file (%s)\n", path.c_str());
        }
        return false;
    }
    if (!file.file.write_and_close(answer.data(), answer.size())) {
        KARST_E_AT(site, "Failed to write file (%s)\n", path.c_str());
        return false;
    }
    return true;
}

} // namespace karst::att
