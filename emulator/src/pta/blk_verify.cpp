// SPDX-License-Identifier: Apache-2.0
// Block verify (17): parameter 0 is accepted when it is a well-formed data block of one of the
// three kinds (certificate, attestation, firmware): header within what was sent, CRC right,
// every record inside the data area. Anything else is answered BAD_FORMAT.
#include "application.hpp"
#include "datablk_reader.hpp"

namespace karst::emu {

TEEC_Result blk_verify(Params &params) {
    if (!params.are(Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const auto block = datablk::parse(params[0].memory);
    if (!block || (block->magic != datablk::MAGIC_CERT && block->magic != datablk::MAGIC_ATT &&
                   block->magic != datablk::MAGIC_FW)) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    return TEEC_SUCCESS;
}

} // namespace karst::emu
