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

} // namespace karst::emu
