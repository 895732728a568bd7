// SPDX-License-Identifier: Apache-2.0
// OTP key read (20), OTP user area programming (21) and board serial number (23) over the
// board's OTP store (otp_store.hpp).
//   20: parameter 0 a = key number; the key's 32 bytes go to parameter 1. A number without a key
//       is ITEM_NOT_FOUND.
//   21: parameter 0 a = offset in the user area; parameter 1 (any direction: the library
//       registers it as output) holds the bytes to program and is left as it is. An empty or
//       out-of-area range is BAD_PARAMETERS, a range with a byte already programmed
//       ACCESS_CONFLICT (nothing programmed).
//   23: parameter 0 (4 bytes) receives the serial number's length, parameter 1 the serial
//       number and its terminating zero.
#include "application.hpp"
#include "otp_store.hpp"

#include <cstring>

namespace karst::emu {
namespace {

bool is_memory(const Param &p) {
    return p.kind == Kind::mem_in || p.kind == Kind::mem_out || p.kind == Kind::mem_inout;
}

} // namespace

TEEC_Result otp_get_key(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_out)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const auto k = otp::key(params[0].value.a);
    if (!k) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return params[1].put(k->data(), k->size());
}

TEEC_Result otp_prog_usr(Params &params) {
    if (params[0].kind != Kind::value_in || !is_memory(params[1]) || params[2].kind != Kind::none ||
        params[3].kind != Kind::none || params[1].memory.empty()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    switch (otp::program_user_area(params[0].value.a, params[1].memory)) {
    case otp::Programming::done:
        return TEEC_SUCCESS;
    case otp::Programming::outside_area:
        return TEEC_ERROR_BAD_PARAMETERS;
    case otp::Programming::already_programmed:
        return TEEC_ERROR_ACCESS_CONFLICT;
    case otp::Programming::storage_failed:
        break;
    }
    return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result board_sn_get(Params &params) {
    if (!params.are(Kind::mem_out, Kind::mem_out) || params[0].memory.size() < sizeof(uint32_t)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const std::string serial = otp::board_serial();
    if (serial.empty()) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    if (TEEC_Result res = params[1].put(serial.c_str(), serial.size() + 1); res != TEEC_SUCCESS) {
        return res;
    }
    const auto length = static_cast<uint32_t>(serial.size());
    return params[0].put(&length, sizeof length);
}

} // namespace karst::emu
