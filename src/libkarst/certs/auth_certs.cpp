// SPDX-License-Identifier: Apache-2.0
// Certificate authentication (command 30): two buffers of certificate material carried to the
// secure world, from memory or from two files. Outcomes: 0 accepted, 1 refused by the secure
// world, -1 local failure.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/file_bytes.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"

#include <bit>
#include <cstdint>

namespace {

constexpr int REFUSED = 1;

bool fits_32_bits(uintptr_t word) {
    return (static_cast<uint64_t>(word) >> 32) == 0;
}

// A buffer the caller hands over as a pointer-width word.
const void *address_in(uintptr_t word) {
    return std::bit_cast<const void *>(word);
}

} // namespace

extern "C" int _pta_invoke_auth_certs(uint32_t cmd, const void *first, uint32_t first_len,
                                      const void *second, uint32_t second_len) try {
    if (first == nullptr || second == nullptr || first_len == 0 || second_len == 0) {
        return -1;
    }
    karst::tee::Exchange tee;
    // Input only: the secure world reads both buffers.
    if (!tee.share(0, const_cast<void *>(first), first_len, TEEC_MEM_INPUT) ||
        !tee.share(1, const_cast<void *>(second), second_len, TEEC_MEM_INPUT)) {
        return -1;
    }
    return tee.invoke(cmd) ? 0 : REFUSED;
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
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    return _pta_invoke_auth_certs(PTA_DALU_CMD_AUTH_CERTS, address_in(words[0]),
                                  static_cast<uint32_t>(words[1]), address_in(words[2]),
                                  static_cast<uint32_t>(words[3]));
} catch (...) {
    return KARST_CAUGHT(-1);
}
