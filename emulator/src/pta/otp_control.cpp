// SPDX-License-Identifier: Apache-2.0
// Test control: the OTP user area as programmed so far.
#include "karst_emu.h"
#include "otp_store.hpp"

extern "C" KARST_EMU_API int karst_emu_otp_user_read(uint32_t offset, uint8_t *out, size_t size) {
    if (out == nullptr && size != 0) {
        return -1;
    }
    return karst::emu::otp::read_user_area(offset, std::span<uint8_t>(out, size)) ? 0 : -1;
}
