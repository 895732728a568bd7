// SPDX-License-Identifier: Apache-2.0
// Remote attestation refresh (26): RA data and its 1,024-byte signature region, as two input
// buffers. Accepted (TEEC_SUCCESS) when they are RA data that the application issued, with the
// device key's signature over them; otherwise RA_REJECTED (0xFFFF3074). See ra_data.hpp.
#include "application.hpp"
#include "ra_data.hpp"

namespace karst::emu {

TEEC_Result ra_refresh(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    return ra::check(params[0].memory, params[1].memory);
}

} // namespace karst::emu
