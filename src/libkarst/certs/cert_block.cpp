// SPDX-License-Identifier: Apache-2.0
// File mode of certificate replacement: the certificate file packed in a certificate data
// block under its URI, and for the remote attestation certificate the "RA_TID" taken from the
// ra_uid file.
#include "replace_crt.hpp"

#include "karst.h"

#include "core/board_paths.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

#include <string>

namespace karst::certs {
namespace {

// Adds "RA_TID" when the ra_uid file holds it. A missing file, or one too short to hold bytes 7
// to 14, leaves the key out; only a failing store fails.
bool add_ra_tid(const char *routine, uint8_t *block) {
    const std::string board_path = std::string(paths::ATTESTATION_DIR) + "/" + paths::RA_UID_NAME;
    const std::string path = platform_path(board_path);
    FileBytes uid;
    // Only a file of root's or this user's is taken: anything else is refused, and the key
    // left out as for a missing file.
    if (const board::Found found = uid.read_board(board_path, {routine, __LINE__});
        found != board::Found::ok) {
        if (found != board::Found::refused) {
            KARST_I_AS(routine, "File %s not exist\n", path.c_str());
        }
        return true;
    }
    if (uid.size() == 0) {
        return true;
    }
    if (uid.size() < RA_TID_OFFSET + RA_TID_SIZE) {
        KARST_I_AS(routine, "File %s too short for %s\n", path.c_str(), RA_TID_KEY);
        return true;
    }
    if (pta20_datablk_set(DATABLK_MAGIC_CERT, RA_TID_KEY, uid.data() + RA_TID_OFFSET, RA_TID_SIZE,
                          block) != 0) {
        KARST_E_AS(routine, "Failed to set key[%s]\n", RA_TID_KEY);
        return false;
    }
    return true;
}

} // namespace

bool build_certificate_block(const ReplaceRequest &r, const char *uri, HeapBuffer &block) {
    FileBytes certificate;
    if (certificate.read(r.file) != 0) {
        KARST_E_AS(r.routine, "File %s not exist\n", r.file);
        return false;
    }

    if (!block.allocate(CERT_BLOCK_SIZE, true)) {
        KARST_E_AS(r.routine, "Failed to malloc space for datablk\n");
        return false;
    }
    if (pta20_datablk_create(DATABLK_MAGIC_CERT, block.data(), CERT_BLOCK_SIZE) != 0 ||
        pta20_datablk_set(DATABLK_MAGIC_CERT, uri, certificate.data(), certificate.size(),
                          block.data()) != 0) {
        KARST_E_AS(r.routine, "Failed to set key[%s]\n", uri);
        return false;
    }
    if (!r.remote_attestation) {
        return true;
    }
    certificate.reset(); // the file's bytes are in the block now
    return add_ra_tid(r.routine, block.data());
}

} // namespace karst::certs
