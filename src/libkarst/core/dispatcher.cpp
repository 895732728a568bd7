// SPDX-License-Identifier: Apache-2.0
// The command argument block and the two-level dispatcher. A number's routine receives the
// number itself and the block's words listed in its table entry; a number without an entry
// answers -1 without a message and without reaching the secure world.
#include "karst.h"

#include "boundary.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

extern "C" {
KARST_API uint32_t cmd_args = 0;
}

namespace {

using Block = uintptr_t *;

// A pointer that the caller stored in a word of the block (pta20_args takes it as uintptr_t).
template <typename T> T *address(uintptr_t word) {
    static_assert(sizeof(T *) == sizeof word);
    return std::bit_cast<T *>(word);
}

// First level: routines that take their words straight from the block (numbers 0 to 34).
using FirstLevelRoutine = int (*)(uint32_t number, Block block);
constexpr uint32_t FIRST_LEVEL_LAST = 34;

// The image commands take word 0 (image word), word 1 (flags), word 4 (buffer or path) and
// word 3 (length).
template <int (*Routine)(uint32_t, uint32_t, uint32_t, void *, uint32_t)>
int image_command(uint32_t number, Block b) {
    return Routine(number, static_cast<uint32_t>(b[0]), static_cast<uint32_t>(b[1]),
                   address<void>(b[4]), static_cast<uint32_t>(b[3]));
}

constexpr std::array<FirstLevelRoutine, FIRST_LEVEL_LAST + 1> FIRST_LEVEL = [] {
    std::array<FirstLevelRoutine, FIRST_LEVEL_LAST + 1> t{};
    t[PTA_DALU_CMD_FW_AUTH] = image_command<pta_invoke_fw_auth>;
    t[PTA_DALU_CMD_FW_UPLOAD] = image_command<pta_invoke_fw_upload>;
    t[PTA_DALU_CMD_FW_UPDATE] = image_command<pta_invoke_fw_update>;
    t[PTA_DALU_CMD_FW_DUMP] = image_command<pta_invoke_fw_dump>;
    t[PTA_DALU_CMD_FW_AUTH_DBLK] = image_command<pta_invoke_fw_auth_dblk>;
    t[PTA_DALU_CMD_FW_AUTH_DBLK + 1] = image_command<pta_invoke_fw_auth_dblk>;
    t[PTA_DALU_CMD_FW_AUTH_DBLK + 2] = image_command<pta_invoke_fw_auth_dblk>;
    t[PTA_DALU_CMD_FW_DELETE] = [](uint32_t n, Block b) {
        return pta_invoke_fw_delete(n, static_cast<uint32_t>(b[0]), static_cast<uint32_t>(b[1]),
                                    address<void>(b[4]));
    };
    t[PTA_DALU_CMD_MEMREG_GET] = [](uint32_t n, Block b) {
        // A word too large for the count is passed as the largest count, which is refused.
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(b[3], UINT32_MAX));
        return pta_invoke_memreg_get(n, address<const char>(b[4]), count);
    };
    // Attestation.
    t[PTA_DALU_CMD_ATT_DUMP] = [](uint32_t n, Block b) {
        return pta_invoke_att_dump(n, address<const char>(b[4]), address<char>(b[5]),
                                   static_cast<uint32_t>(b[3]));
    };
    t[PTA_DALU_CMD_BLK_GET] = [](uint32_t n, Block b) {
        return pta_invoke_blk_get(n, static_cast<uint32_t>(b[0]), static_cast<uint32_t>(b[1]),
                                  address<const char>(b[4]));
    };
    t[PTA_DALU_CMD_PROV_QUERY] = [](uint32_t n, Block b) {
        return pta_invoke_prov_query(n, static_cast<uint32_t>(b[0]), nullptr, 0);
    };
    t[PTA_DALU_CMD_RA_REFRESH] = [](uint32_t n, Block b) {
        return pta_invoke_ra_refresh(n, address<const char>(b[4]), static_cast<uint32_t>(b[3]));
    };
    t[PTA_DALU_CMD_GET_CERTIFICATE] = [](uint32_t n, Block b) {
        // Word 3 carries the size both ways, as a 32-bit number whatever the word's width.
        uint32_t size = static_cast<uint32_t>(b[3]);
        const int rc = pta_invoke_dalu_get_certificate(n, static_cast<int32_t>(b[0]),
                                                       address<uint8_t>(b[5]), &size);
        if (rc == 0) {
            b[3] = size;
        }
        return rc;
    };
    // Certificates and signing.
    t[PTA_DALU_CMD_REPLACE_CRT] = [](uint32_t n, Block b) {
        return pta_invoke_replace_crt(n, static_cast<uint32_t>(b[0]), nullptr,
                                      static_cast<uint32_t>(b[1]), address<const char>(b[4]),
                                      nullptr, 0);
    };
    t[PTA_DALU_CMD_GEN_CSR] = [](uint32_t n, Block b) {
        return pta_invoke_gen_csr(n, address<const char>(b[4]), nullptr, 0,
                                  address<const char>(b[5]));
    };
    t[PTA_DALU_CMD_BLK_VERIFY] = [](uint32_t n, Block b) {
        return pta_invoke_blk_verify(n, address<const char>(b[4]));
    };
    t[PTA_DALU_CMD_ATT_VALIDATE] = [](uint32_t n, Block b) {
        return pta_invoke_att_validate(n, static_cast<uint32_t>(b[0]));
    };
    t[PTA_DALU_CMD_REPLACE_RA_CRT] = [](uint32_t n, Block b) {
        return pta_invoke_replace_ra_crt(n, static_cast<uint32_t>(b[0]), nullptr,
                                         static_cast<uint32_t>(b[1]), address<const char>(b[4]),
                                         nullptr, 0);
    };
    t[PTA_DALU_CMD_AUTH_CERTS] = [](uint32_t n, Block b) {
        return pta_invoke_auth_certs(n, address<const char>(b[4]), address<const char>(b[5]));
    };
    return t;
}();

// Second level: numbers 4 to 15, with words 1 and 4.
using SecondLevelRoutine = int (*)(uint32_t number, uintptr_t word1, uintptr_t word4);
constexpr uint32_t SECOND_LEVEL_FIRST = 4;
constexpr uint32_t SECOND_LEVEL_COUNT = 12;

constexpr std::array<SecondLevelRoutine, SECOND_LEVEL_COUNT> SECOND_LEVEL = [] {
    std::array<SecondLevelRoutine, SECOND_LEVEL_COUNT> t{};
    auto at = [&t](uint32_t number) -> SecondLevelRoutine & {
        return t[number - SECOND_LEVEL_FIRST];
    };
    at(PTA_DALU_CMD_UBOOTENV_GET) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_ubootenv_get(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_UBOOTENV_SET) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_ubootenv_set(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_CPLD_REGR) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_cpld_regr(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_CPLD_REGW) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_cpld_regw(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_INVENTORY_GET) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_inventory_get(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_INVENTORY_SET) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_inventory_set(n, address<char>(w4));
    };
    at(PTA_DALU_CMD_ATT_SIGN) = [](uint32_t n, uintptr_t w1, uintptr_t w4) {
        return pta_invoke_att_sign(n, static_cast<uint32_t>(w1), address<const char>(w4));
    };
    at(PTA_DALU_CMD_ATT_VERIFY) = [](uint32_t n, uintptr_t, uintptr_t w4) {
        return pta_invoke_att_verify(n, address<char>(w4));
    };
    return t;
}();

} // namespace

extern "C" void pta20_args(uintptr_t *block, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                           uintptr_t a5, uintptr_t a6) try {
    block[0] = a1;
    block[1] = a2;
    block[2] = a3;
    block[4] = a4; // the fourth and fifth arguments go crosswise
    block[3] = a5;
    block[5] = a6;
} catch (...) {
    KARST_CAUGHT_VOID();
}

extern "C" int pta_invoke_cmd(uint32_t number, uintptr_t *block) try {
    if (number <= FIRST_LEVEL_LAST && FIRST_LEVEL[number] != nullptr) {
        return FIRST_LEVEL[number](number, block);
    }
    return pta_invoke_cmd_default(number, block[1], block[4]);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_cmd_default(uint32_t number, uintptr_t word1, uintptr_t word4) try {
    const uint32_t index = number - SECOND_LEVEL_FIRST; // unsigned: below 4 wraps far above 11
    if (index < SECOND_LEVEL_COUNT && SECOND_LEVEL[index] != nullptr) {
        return SECOND_LEVEL[index](number, word1, word4);
    }
    return -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_test_cmd(uintptr_t, uintptr_t) try { return -1; } catch (...) {
    return KARST_CAUGHT(-1);
}
