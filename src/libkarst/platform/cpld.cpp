// SPDX-License-Identifier: Apache-2.0
// CPLD registers, reached through the secure world with commands 6 (read) and 7 (write).
// Registers and values are single bytes given as command-line texts.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "name_value.hpp"

#include <cstdlib>

namespace {

using karst::HeapBuffer;
using karst::tee::Exchange;

constexpr size_t CPLD_REGISTER_SIZE = 1024;
constexpr size_t CPLD_VALUE_SIZE = 32768;

// A number with automatic base ("0x" hexadecimal, leading 0 octal), cut to 8 bits; 0 for text
// that is not a number.
uint8_t parse_byte(const char *text) {
    return static_cast<uint8_t>(std::strtoul(text, nullptr, 0));
}

// A zeroed input buffer of size bytes holding byte first, shared as parameter index of tee;
// failures reported at site.
bool share_byte(Exchange &tee, int index, HeapBuffer &buffer, size_t size, uint8_t byte,
                karst::log::Site site) {
    if (!buffer.allocate(size, true)) {
        KARST_E_AT(site, "Failed to allocate input buffer\n");
        return false;
    }
    buffer.data()[0] = byte;
    return tee.share(index, buffer, TEEC_MEM_INPUT, site.line);
}

} // namespace

extern "C" int pta_invoke_cpld_regr(uint32_t number, char *text) try {
    if (text == nullptr) {
        return -1;
    }
    const uint8_t reg = parse_byte(text);
    HeapBuffer reg_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!share_byte(tee, 0, reg_buf, CPLD_REGISTER_SIZE, reg, KARST_SITE)) {
        return -1;
    }
    if (!value_buf.allocate(CPLD_VALUE_SIZE, true)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (!tee.share(1, value_buf, TEEC_MEM_OUTPUT) || !tee.invoke(number)) {
        return -1;
    }
    KARST_PRINT("Read CPLD Reg[%02X] = %02X\n", reg, value_buf.data()[0]);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_cpld_regw(uint32_t number, char *text) try {
    karst::NameValue pair;
    if (!karst::split_name_and_value(text, pair)) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    const uint8_t reg = parse_byte(pair.name);
    const uint8_t value = parse_byte(pair.value);
    KARST_PRINT("Write cpld reg[%02x] = %02x\n", reg, value);

    HeapBuffer reg_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!share_byte(tee, 0, reg_buf, CPLD_REGISTER_SIZE, reg, KARST_SITE) ||
        !share_byte(tee, 1, value_buf, CPLD_VALUE_SIZE, value, KARST_SITE)) {
        return -1;
    }
    return tee.invoke(number) ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
