// SPDX-License-Identifier: Apache-2.0
// Test control: the check an RA refresh makes of RA data, for data a test holds.
#include "karst_emu.h"
#include "ra_data.hpp"

extern "C" KARST_EMU_API uint32_t karst_emu_ra_check(const uint8_t *result, size_t size) {
    namespace ra = karst::emu::ra;
    if (result == nullptr || size != ra::RESULT_SIZE) {
        return ra::RA_REJECTED;
    }
    return ra::check(std::span(result, ra::DATA_SIZE),
                     std::span(result + ra::DATA_SIZE, ra::SIGNATURE_SIZE));
}
