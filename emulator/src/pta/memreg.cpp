// SPDX-License-Identifier: Apache-2.0
// Secure register read (18): value input a = count, input memory with the start address in its
// first four bytes (little-endian), output memory receiving one 32-bit word per register.
//
// The register map is a fixed function of the address, so that every answer can be predicted:
// the register at address A holds A XOR 0x5EC0DE00 (for example 0x1f0 holds 0x5ec0dff0). Only
// word-aligned addresses are mapped: an unaligned start answers TEEC_ERROR_BAD_PARAMETERS. A
// count of 0 writes nothing.
#include "application.hpp"
#include "byte_order.hpp"

#include <cstring>

namespace karst::emu {
namespace {

// What every register's address is XORed with to give its contents.
constexpr uint32_t REGISTER_PATTERN = 0x5EC0DE00;

} // namespace

uint32_t secure_register(uint32_t address) {
    return address ^ REGISTER_PATTERN;
}

TEEC_Result memreg_get(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_in, Kind::mem_out) ||
        params[1].memory.size() < sizeof(uint32_t)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t count = params[0].value.a;
    const uint32_t address = load_le32(params[1].memory.data());
    if (address % 4 != 0) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    Param &out = params[2];
    const uint64_t needed = uint64_t{count} * sizeof(uint32_t);
    out.reported = static_cast<size_t>(needed);
    if (needed > out.memory.size()) {
        return TEEC_ERROR_SHORT_BUFFER;
    }
    for (uint32_t n = 0; n < count; ++n) {
        const uint32_t value = secure_register(address + 4u * n);
        std::memcpy(out.memory.data() + size_t{n} * sizeof value, &value, sizeof value);
    }
    return TEEC_SUCCESS;
}

} // namespace karst::emu
