// CPLD registers, reached through the secure world with commands 6 (read) and 7 (write).
// Registers and values are single bytes given as command-line texts.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t CPLD_REGISTER_SIZE = 1024;
constexpr size_t CPLD_VALUE_SIZE = 32768;

// A number with automatic base ("0x" hexadecimal, leading 0 octal), cut to 8 bits; 0 for text
// that is not a number.
uint8_t parse_byte(const char *text) {
    return static_cast<uint8_t>(std::strtoul(text, nullptr, 0) & 0xFF);
}

} // namespace

extern "C" int pta_invoke_cpld_regr(uint32_t number, char *text) try {
    using namespace karst::tee;
    if (text == nullptr) {
        return -1;
    }
    const uint8_t reg = parse_byte(text);

    SharedBuffer in;
    if (!in.allocate(CPLD_REGISTER_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    in.data()[0] = reg;
    if (TEEC_Result res = in.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    SharedBuffer out;
    if (!out.allocate(CPLD_VALUE_SIZE, true)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (TEEC_Result res = out.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.whole(0, in).whole(1, out);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(number, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    KARST_PRINT("Read CPLD Reg[%02X] = %02X\n", reg, out.data()[0]);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_cpld_regw(uint32_t number, char *text) try {
    using namespace karst::tee;
    // register=value, split as a name=value text: leading "=" skipped, the value is the rest.
    char *reg_text = text;
    while (reg_text != nullptr && *reg_text == '=') {
        ++reg_text;
    }
    char *eq = reg_text != nullptr ? std::strchr(reg_text, '=') : nullptr;
    if (eq == nullptr || eq[1] == '\0') {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    *eq = '\0';
    const uint8_t reg = parse_byte(reg_text);
    const uint8_t value = parse_byte(eq + 1);
    KARST_PRINT("Write cpld reg[%02x] = %02x\n", reg, value);

    SharedBuffer reg_buf;
    if (!reg_buf.allocate(CPLD_REGISTER_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    reg_buf.data()[0] = reg;
    if (TEEC_Result res = reg_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }
    SharedBuffer value_buf;
    if (!value_buf.allocate(CPLD_VALUE_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    value_buf.data()[0] = value;
    if (TEEC_Result res = value_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.whole(0, reg_buf).whole(1, value_buf);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(number, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
