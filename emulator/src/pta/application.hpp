// SPDX-License-Identifier: Apache-2.0
// The model of the board's pseudo trusted application: its commands and its stored state.
#pragma once

#include "params.hpp"

#include <cstdint>

namespace karst::emu {

// The application's identity.
bool is_application(const TEEC_UUID &uuid);

// Runs one command. The result is the application's answer (origin: the trusted application).
TEEC_Result application_invoke(uint32_t command, Params &params);

// One command's handler.
using CommandHandler = TEEC_Result (*)(Params &params);

// Handlers of the U-Boot environment commands.
TEEC_Result ubootenv_get(Params &params);
TEEC_Result ubootenv_set(Params &params);

// Handlers of the image commands.
TEEC_Result image_auth(Params &params);
TEEC_Result image_upload(Params &params);
TEEC_Result image_update(Params &params);
TEEC_Result image_dump(Params &params);
TEEC_Result image_delete(Params &params);
TEEC_Result image_auth_dblk(Params &params);

// Handlers of the CPLD registers and the FPGA-ready notice.
TEEC_Result cpld_read(Params &params);
TEEC_Result cpld_write(Params &params);
TEEC_Result fpga_ready(Params &params);

// Handlers of the inventory commands.
TEEC_Result inventory_get(Params &params);
TEEC_Result inventory_set(Params &params);

// Handler of the secure register read, and the register map it answers from.
TEEC_Result memreg_get(Params &params);
uint32_t secure_register(uint32_t address);

// Handlers of the attestation commands.
TEEC_Result att_dump(Params &params);
TEEC_Result blk_get(Params &params);
TEEC_Result prov_query(Params &params);
TEEC_Result ra_refresh(Params &params);
TEEC_Result get_certificate(Params &params);

// A signature that does not hold (the trusted side's own code).
constexpr TEEC_Result SIGNATURE_INVALID = 0xFFFF3072;

// Handlers of the certificate and signing commands.
TEEC_Result replace_crt(Params &params);    // 11
TEEC_Result gen_csr(Params &params);        // 13
TEEC_Result att_sign(Params &params);       // 14
TEEC_Result att_verify(Params &params);     // 15
TEEC_Result blk_verify(Params &params);     // 17
TEEC_Result att_validate(Params &params);   // 24
TEEC_Result replace_ra_crt(Params &params); // 27
TEEC_Result auth_certs(Params &params);     // 30

// Handlers of the OTP commands.
TEEC_Result otp_get_key(Params &params);  // 20
TEEC_Result otp_prog_usr(Params &params); // 21
TEEC_Result board_sn_get(Params &params); // 23

} // namespace karst::emu
