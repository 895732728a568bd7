// SPDX-License-Identifier: Apache-2.0
// Remote attestation refresh (command 26): the signed RA data kept in an archive is unpacked
// into "/tmp/attestation" and handed back to the secure world, data and trailing 1,024-byte
// signature as two input buffers.
#include "karst.h"

#include "attestation/archive_extract.hpp"
#include "attestation/attestation_dir.hpp"
#include "attestation/bounded_text.hpp"
#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/session_scope.hpp"

#include <cstring>
#include <fcntl.h>

namespace {

using karst::FileBytes;
using karst::HeapBuffer;
using karst::platform_path;
using karst::log::Site;
namespace att = karst::att;
namespace board = karst::board;
namespace paths = karst::paths;

constexpr size_t PATH_FIELD = 200;
constexpr uint32_t SIGNATURE_SIZE = 1024;
// The secure world's rejection of the RA data, and what the exported call makes of it.
constexpr int RA_REJECTED = static_cast<int>(0xFFFF3074u);
constexpr int RA_REFRESH_REJECTED = static_cast<int>(0xFFFF6131u);

// The archive at path (the caller's, used as given) or the board's default one (checked),
// unpacked into the attestation directory. 0, or the routine's result reported at site.
int unpack_archive(const char *path, Site site) {
    const std::string default_board =
        att::bounded(std::string(paths::NV_DIR) + "/" + paths::RA_ARCHIVE_NAME, PATH_FIELD);
    const std::string archive =
        path != nullptr ? att::bounded(path, PATH_FIELD) : platform_path(default_board);
    const board::Opened archive_file = path != nullptr
                                           ? att::open_caller_archive(archive)
                                           : board::open_file(default_board, O_RDONLY, site);
    if (archive_file.found == board::Found::missing) {
        karst::log::info(site.func, site.line, "No valid RA file found!\n");
        return static_cast<int>(TEEC_ERROR_ACCESS_DENIED);
    }
    if (archive_file.found == board::Found::failed) {
        KARST_E_AT(site, "Failed to open file (%s)\n", archive.c_str());
        return -1;
    }
    if (!archive_file || !att::attestation_dir(site) ||
        !att::extract_archive(archive_file.fd, archive, site)) {
        return -1;
    }
    return 0;
}

// The unpacked RA data file, read whole; false, reported at site, when it is missing or shorter
// than its signature.
bool read_ra_data(FileBytes &content, Site site) {
    const std::string data_board =
        att::bounded(std::string(paths::ATTESTATION_DIR) + "/" + paths::RA_DATA_NAME, PATH_FIELD);
    const std::string data_path = platform_path(data_board);
    if (const board::Found found = content.read_board(data_board, site);
        found != board::Found::ok) {
        if (found != board::Found::refused) {
            KARST_E_AT(site, "File %s not exist\n", data_path.c_str());
        }
        return false;
    }
    if (content.size() < SIGNATURE_SIZE) {
        KARST_E_AT(site, "RA data file %s is too short: %u bytes, at least %u expected\n",
                   data_path.c_str(), content.size(), SIGNATURE_SIZE);
        return false;
    }
    return true;
}

} // namespace

// capacity sized a working buffer that the refresh never used; it is taken and ignored.
extern "C" int _pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t) try {
    if (const int rc = unpack_archive(path, KARST_SITE); rc != 0) {
        return rc;
    }
    HeapBuffer signature;
    if (!signature.allocate(SIGNATURE_SIZE)) {
        KARST_E("Failed to allocate signature buffer\n");
        return -1;
    }
    FileBytes content;
    if (!read_ra_data(content, KARST_SITE)) {
        return -1;
    }
    // The data, and its trailing signature in a buffer of its own.
    const uint32_t data_size = content.size() - SIGNATURE_SIZE;
    std::memcpy(signature.data(), content.data() + data_size, SIGNATURE_SIZE);
    karst::tee::Exchange tee;
    if (!tee.share(0, content.data(), data_size, TEEC_MEM_INPUT) ||
        !tee.share(1, signature, TEEC_MEM_INPUT)) {
        return -1;
    }
    tee.invoke(command);
    return tee.code();
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t capacity) try {
    return _pta_invoke_ra_refresh(command, path, capacity);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_ra_refresh(const char *path, uint32_t capacity) try {
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    const int rc = _pta_invoke_ra_refresh(PTA_DALU_CMD_RA_REFRESH, path, capacity);
    if (rc == RA_REJECTED) {
        return RA_REFRESH_REJECTED;
    }
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
