// SPDX-License-Identifier: Apache-2.0
// CPLD registers (read 6, write 7) and the FPGA-ready notice (25). Registers are bytes kept in
// the state directory; a register never written reads 0, except register 0x00, the CPLD's
// version (0x12).
#include "application.hpp"
#include "kv_store.hpp"

namespace karst::emu {
namespace {

const std::map<std::string, std::string> &default_registers() {
    static const std::map<std::string, std::string> regs = {{"0", std::string(1, '\x12')}};
    return regs;
}

} // namespace

TEEC_Result cpld_read(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_out) || params[0].memory.empty()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore regs("cpld");
    if (!regs.load(default_registers())) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    const auto value = regs.get(std::to_string(params[0].memory[0]));
    const uint8_t byte = value && !value->empty() ? static_cast<uint8_t>((*value)[0]) : 0;
    return params[1].put(&byte, 1);
}

TEEC_Result cpld_write(Params &params) {
    if (!params.are(Kind::mem_in, Kind::mem_in) || params[0].memory.empty() ||
        params[1].memory.empty()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore regs("cpld");
    if (!regs.load(default_registers())) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    regs.set(std::to_string(params[0].memory[0]),
             std::string(1, static_cast<char>(params[1].memory[0])));
    return regs.save() ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

TEEC_Result fpga_ready(Params &params) {
    if (!params.are(Kind::none)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore state("fpga");
    if (!state.load()) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    state.set("ready", "1");
    return state.save() ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

} // namespace karst::emu
