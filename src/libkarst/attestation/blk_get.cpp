// Data block retrieval (command 16): the secure world's block of a type, a number and a name,
// written whole to "/tmp/datablk.bin". The library does not look into the block.
#include "karst.h"

#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/file_handle.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shared_buffer.hpp"

#include <cstring>

namespace {

constexpr uint32_t BLOCK_TYPE_LAST = 3;
constexpr size_t BLOCK_SIZE = 65536;

} // namespace

extern "C" int pta_invoke_blk_get(uint32_t command, uint32_t type, uint32_t value,
                                  const char *name) try {
    using namespace karst::tee;

    if (name == nullptr) {
        KARST_E("Missing datablk name\n");
        return -1;
    }
    const size_t name_len = std::strlen(name);
    SharedBuffer name_buf;
    if (!name_buf.allocate(name_len)) {
        KARST_E("Failed to allocate space for input buffer\n");
        return -1;
    }
    if (name_len > 0) {
        std::memcpy(name_buf.data(), name, name_len);
    }
    if (TEEC_Result res = name_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }

    if (type > BLOCK_TYPE_LAST) {
        KARST_E("Unsupported datablk type %d\n", static_cast<int>(type));
        return -1;
    }

    SharedBuffer block;
    if (!block.allocate(BLOCK_SIZE, true)) {
        KARST_E("Failed to malloc space for datablk\n");
        return -1;
    }
    if (TEEC_Result res = block.share(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return static_cast<int>(res);
    }

    Operation op;
    op.value(0, type, value).whole(1, name_buf).whole(2, block);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(command, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return static_cast<int>(res);
    }

    // The whole buffer is written, whatever the secure world filled.
    const std::string path = karst::platform_path(karst::paths::DATABLK_FILE);
    const karst::board::Stream file =
        karst::board::create_stream(karst::paths::DATABLK_FILE, "w+", KARST_SITE);
    if (!file) {
        if (file.reported()) {
            return -1;
        }
        KARST_PRINT("Failed to open file (%s)\n", path.c_str());
        return -1;
    }
    std::fwrite(block.data(), 1, block.size(), file.get());
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
