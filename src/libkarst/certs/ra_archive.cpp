// SPDX-License-Identifier: Apache-2.0
// The remote attestation answer of command 27, kept for the refresh: written as RA_DATA_NAME in
// the attestation directory, packed into RA_ARCHIVE_NAME beside it and copied to NV_DIR
// (core/board_paths.hpp).
#include "replace_crt.hpp"

#include "karst.h"

#include "attestation/attestation_dir.hpp"
#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

#include <string>
#include <unistd.h>

namespace karst::certs {
namespace {

// The answer's copy at board_path; a failed open or write is reported at site.
void write_answer_copy(const std::string &board_path, const uint8_t *result, size_t size,
                       log::Site site) {
    board::Stream data = board::create_stream(board_path, "wb", site);
    if (!data) {
        if (!data.reported()) {
            KARST_E_AT(site, "Failed to open file:%s\n", platform_path(board_path).c_str());
        }
        return;
    }
    if (!data.file.write_and_close(result, size)) {
        KARST_E_AT(site, "Failed to write file:%s\n", platform_path(board_path).c_str());
    }
}

} // namespace

bool archive_ra_result(log::Site site, const uint8_t *result, size_t size) {
    if (!att::attestation_dir(site)) {
        return false;
    }
    const std::string dir_board = paths::ATTESTATION_DIR;
    // The interface does not check this write: a failed copy is reported, the result kept.
    write_answer_copy(dir_board + "/" + paths::RA_DATA_NAME, result, size, site);

    // The archive is made afresh and used only when what tar left is a file of this user's:
    // nothing else at that name is taken for the library's own output.
    const std::string archive_board = dir_board + "/" + paths::RA_ARCHIVE_NAME;
    ::unlink(platform_path(archive_board).c_str());
    shell::run("cd " + shell::quote(platform_path(dir_board)) + " && tar zcf " +
               shell::quote(paths::RA_ARCHIVE_NAME) + " " + shell::quote(paths::RA_DATA_NAME));
    const board::Opened archive = board::open_file(archive_board, O_RDONLY, site);
    if (archive) {
        // Copied in place of the kept archive only once whole: a failed copy never replaces it.
        board::copy_into(std::string(paths::NV_DIR) + "/" + paths::RA_ARCHIVE_NAME, archive.get(),
                         site);
    }
    return true;
}

} // namespace karst::certs
