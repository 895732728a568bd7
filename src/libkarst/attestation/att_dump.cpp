// SPDX-License-Identifier: Apache-2.0
// The attestation dump: the evidence of the controller for one nonce, gathered into an
// attestation data block (the REE data archive, the SPDM evidence records and the SPDM root
// CAs), kept as sent in "/tmp/spdm_attestation_dump.bin" and handed to the secure world with
// the nonce.
#include "karst.h"

#include "attestation/nonce.hpp"
#include "attestation/ree_data_tool.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/file_handle.hpp"
#include "core/heap_buffer.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/session_scope.hpp"

#include <cstdio>

namespace {

using karst::FileBytes;
using karst::HeapBuffer;
namespace att = karst::att;
namespace board = karst::board;
namespace paths = karst::paths;

constexpr uint32_t BLOCK_SIZE = 65536;
constexpr int REE_DATA_VERSION = 1;
constexpr size_t KEY_FIELD = 64;
constexpr char SPDM_EVIDENCE_KEY[] = "SPDMDevInvt_v1_klvs";

// Writes the block as sent, into a file created fresh; neither failure stops the dump.
void keep_copy(const HeapBuffer &block) {
    const std::string path = karst::platform_path(paths::ATT_DUMP_COPY);
    board::Stream file = board::create_stream(paths::ATT_DUMP_COPY, "wb", KARST_SITE);
    if (!file) {
        if (file.reported()) {
            return;
        }
        KARST_E("Failed to open dump file for writing: %s\n", path.c_str());
        return;
    }
    const size_t written = std::fwrite(block.data(), 1, block.size(), file.get());
    if (!file.file.close() || written != block.size()) {
        KARST_E("Partial write to dump file: %s (written: %zu, expected: %zu)\n", path.c_str(),
                written, block.size());
    }
}

// The attestation data block, begun with the REE data archive as its first key. Without an
// archive there is no block (and no failure); false, reported at site, when the archive cannot
// be read or stored.
bool start_block(HeapBuffer &block, karst::log::Site site) {
    FileBytes archive;
    const board::Found found =
        archive.read_board(paths::REE_DATA_ARCHIVE, site, FileBytes::Missing::quiet);
    if (found == board::Found::missing) {
        return true;
    }
    if (found == board::Found::refused) {
        return false;
    }
    if (found != board::Found::ok) {
        KARST_E_AT(site, "Failed to read file %s\n",
                   karst::platform_path(paths::REE_DATA_ARCHIVE).c_str());
        return false;
    }
    if (!block.allocate(BLOCK_SIZE, true)) {
        KARST_E_AT(site, "Failed to malloc space for datablk\n");
        return false;
    }
    pta20_datablk_create(DATABLK_MAGIC_ATT, block.data(), BLOCK_SIZE);
    char key[KEY_FIELD];
    std::snprintf(key, sizeof key, "ReeData_v%d_tgz", REE_DATA_VERSION);
    if (pta20_datablk_set(DATABLK_MAGIC_ATT, key, archive.data(), archive.size(), block.data()) !=
        0) {
        KARST_E_AT(site, "Failed to set key[%s]\n", key);
        return false;
    }
    return true;
}

// The SPDM evidence added to the block: the records of certificate chains and measurements
// under one key, then the root CAs. Evidence that cannot be used is reported and left out.
void add_evidence(const HeapBuffer &klv, const HeapBuffer &block) {
    uint32_t klv_used = 0;
    att::spdm_collect_cert_chains(klv.data(), att::SPDM_KLV_BUFFER_SIZE, &klv_used);
    att::spdm_collect_measurements(klv.data(), att::SPDM_KLV_BUFFER_SIZE, &klv_used);
    // Without a block, or with no records, the data block refuses this store with its message.
    pta20_datablk_set(DATABLK_MAGIC_ATT, SPDM_EVIDENCE_KEY, klv.data(), klv_used, block.data());
    att::spdm_add_root_cas(block.data());
}

} // namespace

extern "C" int pta_invoke_att_dump(uint32_t, const char *nonce, char *path_buf,
                                   uint32_t path_buf_size) try {
    if (nonce == nullptr) {
        KARST_E("Nonce is NULL\n");
        return -1;
    }
    if (!att::nonce_usable(nonce, KARST_SITE)) {
        return -1;
    }
    HeapBuffer klv;
    if (!klv.allocate(att::SPDM_KLV_BUFFER_SIZE, true)) {
        KARST_E("Failed to allocate KLV buffer\n");
        return -1;
    }
    if (!att::ree_data_tool_make(nonce, KARST_SITE)) {
        return -1;
    }
    HeapBuffer block;
    if (!start_block(block, KARST_SITE)) {
        return -1;
    }
    add_evidence(klv, block);
    if (block) {
        keep_copy(block);
    }
    const int rc = _pta_invoke_att_dump(PTA_DALU_CMD_ATT_DUMP, nonce, block.data(),
                                        block ? BLOCK_SIZE : 0, path_buf, path_buf_size);
    att::ree_data_tool_clean(KARST_SITE);
    return rc;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_att_dump(const char *nonce, char *path_buf, uint32_t path_buf_size) try {
    if (nonce == nullptr || !att::nonce_usable(nonce, KARST_SITE)) {
        return -1;
    }
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(nonce), path_buf_size,
               reinterpret_cast<uintptr_t>(path_buf));
    return pta_invoke_cmd(PTA_DALU_CMD_ATT_DUMP, block) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
