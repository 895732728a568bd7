// The remote attestation answer of command 27, kept for the refresh: written to
// /tmp/attestation/ra_data.bin, packed into ra_data.tgz beside it and copied to /nv1.
#include "replace_crt.hpp"

#include "karst.h"

#include "attestation/attestation_dir.hpp"
#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace karst::certs {

bool archive_ra_result(log::Site site, const uint8_t *result, size_t size) {
    if (!att::attestation_dir(site)) {
        return false;
    }
    const std::string dir_board = paths::ATTESTATION_DIR;
    // Not checked, as the answer's copy never was: the archive below is what the refresh uses.
    board::Stream data = board::create_stream(dir_board + "/" + paths::RA_DATA_NAME, "wb", site);
    if (data) {
        std::fwrite(result, size, 1, data.get());
    }
    data.file.reset();

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
