// Certificate authentication (command 30): two buffers of certificate material carried to the
// secure world, from memory or from two files. Outcomes: 0 accepted, 1 refused by the secure
// world, -1 local failure.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <cstdint>

namespace {

constexpr int REFUSED = 1;

bool fits_32_bits(uintptr_t word) {
    return (static_cast<uint64_t>(word) >> 32) == 0;
}

} // namespace

extern "C" int _pta_invoke_auth_certs(uint32_t cmd, const void *first, uint32_t first_len,
                                      const void *second, uint32_t second_len) try {
    using namespace karst::tee;

    if (first == nullptr || second == nullptr || first_len == 0 || second_len == 0) {
        return -1;
    }
    // Input only: the secure world reads both buffers.
    SharedRegion first_shm;
    if (TEEC_Result res = first_shm.share(const_cast<void *>(first), first_len, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    SharedRegion second_shm;
    if (TEEC_Result res = second_shm.share(const_cast<void *>(second), second_len, TEEC_MEM_INPUT);
        res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    Operation op;
    op.whole(0, first_shm).whole(1, second_shm);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(cmd, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return REFUSED;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_auth_certs(uint32_t cmd, const char *first_path,
                                     const char *second_path) try {
    if (first_path == nullptr || second_path == nullptr) {
        return -1;
    }
    karst::FileBytes first;
    if (first.read(first_path) != 0) {
        KARST_E("File %s not exist\n", first_path);
        return -1;
    }
    karst::FileBytes second;
    if (second.read(second_path) != 0) {
        KARST_E("File %s not exist\n", second_path);
        return -1;
    }
    return _pta_invoke_auth_certs(cmd, first.data(), first.size(), second.data(), second.size());
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_auth_certs(const uintptr_t *words) try {
    if (words == nullptr) {
        return -1;
    }
    // Lengths are 32-bit: where a word is wider, a larger length is refused, never cut.
    if (!fits_32_bits(words[1]) || !fits_32_bits(words[3])) {
        return -1;
    }
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_auth_certs(
        PTA_DALU_CMD_AUTH_CERTS, reinterpret_cast<const void *>(words[0]),
        static_cast<uint32_t>(words[1]), reinterpret_cast<const void *>(words[2]),
        static_cast<uint32_t>(words[3]));
    pta_close_session();
    return rc;
} catch (...) {
    return KARST_CAUGHT(-1);
}
