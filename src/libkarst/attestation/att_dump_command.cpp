// The attestation dump's command (ID 12): the nonce and the attestation data block go to the
// secure world, which answers a 66,560-byte result and a digest-info text; the result is written
// to "/tmp/attestation/attd_<digest info>_<nonce>.bin", the only file left in that directory.
#include "karst.h"

#include "attestation/attestation_dir.hpp"
#include "attestation/bounded_text.hpp"
#include "attestation/digest_info.hpp"
#include "attestation/nonce.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shared_buffer.hpp"

#include <cstring>

namespace {

constexpr size_t RESULT_SIZE = 0x10400; // 66,560: the block's 65,536 and 1,024 more
constexpr size_t DIGEST_INFO_SIZE = 128;
constexpr uint32_t BLOCK_LIMIT = 0x400000;
constexpr size_t RESULT_PATH_FIELD = 256;

} // namespace

extern "C" int _pta_invoke_att_dump(uint32_t, const char *nonce, const void *block,
                                    uint32_t block_len, char *path_buf,
                                    uint32_t path_buf_size) try {
    using namespace karst;
    using namespace karst::tee;

    if (nonce == nullptr) {
        KARST_E("Miss nonce\n");
        return -1;
    }
    if (!att::nonce_ok(nonce)) {
        KARST_E("Invalid nonce: 1 to 64 letters, digits, '-' or '_' expected\n");
        return -1;
    }

    SharedBuffer result;
    if (!result.allocate(RESULT_SIZE, true)) {
        KARST_E("Failed to malloc space for datablk\n");
        return -1;
    }
    if (TEEC_Result res = result.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }
    SharedBuffer digest;
    if (!digest.allocate(DIGEST_INFO_SIZE, true)) {
        KARST_E("Failed to malloc space for digest info\n");
        return -1;
    }
    if (TEEC_Result res = digest.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }
    // The nonce goes without its terminating zero.
    SharedRegion nonce_text;
    if (TEEC_Result res =
            nonce_text.share(const_cast<char *>(nonce), std::strlen(nonce), TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }
    SharedRegion block_mem;
    const bool with_block = block != nullptr && block_len != 0;
    if (with_block) {
        if (block_len > BLOCK_LIMIT || block_len > RESULT_SIZE) {
            KARST_E("Incorrect datablk size %x\n", block_len);
            return -1;
        }
        // Input only: the secure world reads the block and never writes it.
        if (TEEC_Result res = block_mem.share(const_cast<void *>(block), block_len, TEEC_MEM_INPUT);
            res != TEEC_SUCCESS) {
            KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
            return static_cast<int>(res);
        }
    }

    Operation op;
    op.whole(0, result).whole(1, digest).whole(2, nonce_text);
    if (with_block) {
        op.whole(3, block_mem);
    }
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(PTA_DALU_CMD_ATT_DUMP, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }

    const auto digest_text = att::digest_info_text({digest.data(), digest.size()});
    if (!digest_text) {
        KARST_E("Invalid digest info from the secure world\n");
        return -1;
    }

    if (!att::fresh_attestation_dir(KARST_SITE)) {
        return -1;
    }

    const std::string board_path = att::bounded(std::string(paths::ATTESTATION_DIR) + "/attd_" +
                                                    *digest_text + "_" + nonce + ".bin",
                                                RESULT_PATH_FIELD);
    const std::string path = platform_path(board_path);
    const board::Stream file = board::create_stream(board_path, "w+", KARST_SITE);
    if (!file) {
        if (file.reported()) {
            return -1;
        }
        KARST_E("Failed to open file (%s)\n", path.c_str());
        return -1;
    }
    // The whole result buffer, whatever length the secure world reported.
    std::fwrite(result.data(), 1, result.size(), file.get());

    if (path_buf != nullptr && path_buf_size > path.size()) {
        std::memset(path_buf, 0, path_buf_size);
        std::memcpy(path_buf, path.c_str(), path.size());
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
