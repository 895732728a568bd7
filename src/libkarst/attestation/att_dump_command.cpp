// SPDX-License-Identifier: Apache-2.0
// The attestation dump's command (ID 12): the nonce and the attestation data block go to the
// secure world, which answers a 66,560-byte result and a digest-info text; the result is written
// to "/tmp/attestation/attd_<digest info>_<nonce>.bin", the only file left in that directory.
#include "karst.h"

#include "attestation/answer_file.hpp"
#include "attestation/attestation_dir.hpp"
#include "attestation/bounded_text.hpp"
#include "attestation/digest_info.hpp"
#include "attestation/nonce.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

#include <cstring>

namespace {

using karst::HeapBuffer;
using karst::tee::Exchange;
namespace att = karst::att;

constexpr size_t RESULT_SIZE = 0x10400; // 66,560: the block's 65,536 and 1,024 more
constexpr size_t DIGEST_INFO_SIZE = 128;
constexpr uint32_t BLOCK_LIMIT = 0x400000;
constexpr size_t RESULT_PATH_FIELD = 256;

// The result, all of its buffer whatever length the secure world reported, written to
// "<attestation dir>/attd_<digest info>_<nonce>.bin" in the emptied directory; the path to
// path_buf when it fits there with its terminator. 0, or -1 reported at site.
int keep_result(const HeapBuffer &result, const HeapBuffer &digest, const char *nonce,
                char *path_buf, uint32_t path_buf_size, karst::log::Site site) {
    const auto digest_text = att::digest_info_text({digest.data(), digest.size()});
    if (!digest_text) {
        KARST_E_AT(site, "Invalid digest info from the secure world\n");
        return -1;
    }
    if (!att::fresh_attestation_dir(site)) {
        return -1;
    }
    const std::string board_path = att::bounded(std::string(karst::paths::ATTESTATION_DIR) +
                                                    "/attd_" + *digest_text + "_" + nonce + ".bin",
                                                RESULT_PATH_FIELD);
    if (!att::write_answer_file(board_path, result, att::OpenFailure::error, site)) {
        return -1;
    }
    const std::string path = karst::platform_path(board_path);
    if (path_buf != nullptr && path_buf_size > path.size()) {
        std::memset(path_buf, 0, path_buf_size);
        std::memcpy(path_buf, path.c_str(), path.size());
    }
    return 0;
}

} // namespace

extern "C" int _pta_invoke_att_dump(uint32_t, const char *nonce, const void *block,
                                    uint32_t block_len, char *path_buf,
                                    uint32_t path_buf_size) try {
    if (nonce == nullptr) {
        KARST_E("Miss nonce\n");
        return -1;
    }
    if (!att::nonce_usable(nonce, KARST_SITE)) {
        return -1;
    }
    HeapBuffer result;
    HeapBuffer digest;
    Exchange tee;
    if (!result.allocate(RESULT_SIZE, true)) {
        KARST_E("Failed to malloc space for datablk\n");
        return -1;
    }
    if (!tee.share(0, result, TEEC_MEM_OUTPUT)) {
        return tee.code();
    }
    if (!digest.allocate(DIGEST_INFO_SIZE, true)) {
        KARST_E("Failed to malloc space for digest info\n");
        return -1;
    }
    // The nonce goes without its terminating zero.
    if (!tee.share(1, digest, TEEC_MEM_OUTPUT) ||
        !tee.share(2, const_cast<char *>(nonce), std::strlen(nonce), TEEC_MEM_INPUT)) {
        return tee.code();
    }
    if (block != nullptr && block_len != 0) {
        if (block_len > BLOCK_LIMIT || block_len > RESULT_SIZE) {
            KARST_E("Incorrect datablk size %x\n", block_len);
            return -1;
        }
        // Input only: the secure world reads the block and never writes it.
        if (!tee.share(3, const_cast<void *>(block), block_len, TEEC_MEM_INPUT)) {
            return tee.code();
        }
    }
    if (!tee.invoke(PTA_DALU_CMD_ATT_DUMP)) {
        return tee.code();
    }
    return keep_result(result, digest, nonce, path_buf, path_buf_size, KARST_SITE);
} catch (...) {
    return KARST_CAUGHT(-1);
}
