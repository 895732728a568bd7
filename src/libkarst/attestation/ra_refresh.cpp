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
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shared_buffer.hpp"

#include <cstring>
#include <fcntl.h>

namespace {

constexpr size_t PATH_FIELD = 200;
constexpr uint32_t SIGNATURE_SIZE = 1024;
// The secure world's rejection of the RA data, and what the exported call makes of it.
constexpr int RA_REJECTED = static_cast<int>(0xFFFF3074u);
constexpr int RA_REFRESH_REJECTED = static_cast<int>(0xFFFF6131u);

} // namespace

// capacity sized a working buffer that the refresh never used; it is taken and ignored.
extern "C" int _pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t) try {
    using namespace karst;
    using namespace karst::tee;

    // The caller's archive is used as given; the default one is a board file, checked.
    const std::string default_board =
        att::bounded(std::string(paths::NV_DIR) + "/" + paths::RA_ARCHIVE_NAME, PATH_FIELD);
    const std::string archive =
        path != nullptr ? att::bounded(path, PATH_FIELD) : platform_path(default_board);
    const board::Opened archive_file = path != nullptr
                                           ? att::open_caller_archive(archive)
                                           : board::open_file(default_board, O_RDONLY, KARST_SITE);
    if (archive_file.found == board::Found::missing) {
        KARST_I("No valid RA file found!\n");
        return static_cast<int>(TEEC_ERROR_ACCESS_DENIED);
    }
    if (archive_file.found == board::Found::failed) {
        KARST_E("Failed to open file (%s)\n", archive.c_str());
        return -1;
    }
    if (!archive_file || !att::attestation_dir(KARST_SITE) ||
        !att::extract_archive(archive_file.fd, archive, KARST_SITE)) {
        return -1;
    }

    SharedBuffer signature;
    if (!signature.allocate(SIGNATURE_SIZE)) {
        KARST_E("Failed to allocate signature buffer\n");
        return -1;
    }

    const std::string data_board =
        att::bounded(std::string(paths::ATTESTATION_DIR) + "/" + paths::RA_DATA_NAME, PATH_FIELD);
    const std::string data_path = platform_path(data_board);
    FileBytes content;
    if (const board::Found found = content.read_board(data_board, KARST_SITE);
        found != board::Found::ok) {
        if (found == board::Found::refused) {
            return -1;
        }
        KARST_E("File %s not exist\n", data_path.c_str());
        return -1;
    }
    const uint32_t size = content.size();
    if (size < SIGNATURE_SIZE) {
        KARST_E("RA data file %s is too short: %u bytes, at least %u expected\n", data_path.c_str(),
                size, SIGNATURE_SIZE);
        return -1;
    }
    const uint32_t data_size = size - SIGNATURE_SIZE;
    std::memcpy(signature.data(), content.data() + data_size, SIGNATURE_SIZE);

    SharedRegion data;
    if (TEEC_Result res = data.share(content.data(), data_size, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    if (TEEC_Result res = signature.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    Operation op;
    op.whole(0, data).whole(1, signature);
    uint32_t origin = 0;
    const TEEC_Result res = invoke(command, op, origin);
    if (res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
    }
    return static_cast<int>(res);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t capacity) try {
    return _pta_invoke_ra_refresh(command, path, capacity);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_ra_refresh(const char *path, uint32_t capacity) try {
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_ra_refresh(PTA_DALU_CMD_RA_REFRESH, path, capacity);
    pta_close_session();
    if (rc == RA_REJECTED) {
        return RA_REFRESH_REJECTED;
    }
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
