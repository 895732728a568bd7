// SPDX-License-Identifier: Apache-2.0
// Secure registers: runs of consecutive 32-bit registers that only the secure world can read
// (command 18). Each register is printed with its address; the first value can be handed back.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"

#include <cstdlib>
#include <cstring>

namespace {

using karst::HeapBuffer;

constexpr size_t MEMREG_INPUT_SIZE = 1024;
constexpr size_t MEMREG_OUTPUT_SIZE = 32768;
constexpr uint32_t MEMREG_OUTPUT_WORDS = MEMREG_OUTPUT_SIZE / sizeof(uint32_t);
constexpr uint32_t MEMREG_EXPORTED_MAX = 64;

// Hexadecimal with an optional "0x"; cut to 32 bits the same way on every processor.
uint32_t parse_address(const char *text) {
    return static_cast<uint32_t>(std::strtoull(text, nullptr, 16));
}

uint32_t word_at(const HeapBuffer &words, uint32_t index) {
    uint32_t word = 0;
    std::memcpy(&word, words.data() + index * sizeof word, sizeof word);
    return word;
}

// Each of the count registers read from address on, with its own address.
void print_registers(uint32_t address, const HeapBuffer &words, uint32_t count) {
    for (uint32_t n = 0; n < count; ++n) {
        KARST_PRINT("Read secure info from register addr:[%08x] --> value:[%08x]\n",
                    address + static_cast<uint32_t>(sizeof(uint32_t)) * n, word_at(words, n));
    }
}

} // namespace

extern "C" int _pta_invoke_memreg_get(const char *address_text, uint32_t count, uint32_t *out) try {
    if (address_text == nullptr) {
        KARST_E("Invalid input addr!\n");
        return -1;
    }
    // The answer has room for 8192 registers; a longer run is refused before the secure world
    // is asked, so that nothing is read past the output buffer.
    if (count > MEMREG_OUTPUT_WORDS) {
        KARST_E("invalid read len!\n");
        return -1;
    }
    const uint32_t address = parse_address(address_text);
    HeapBuffer input;
    HeapBuffer output;
    karst::tee::Exchange tee;
    if (!input.allocate(MEMREG_INPUT_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    std::memcpy(input.data(), &address, sizeof address); // the processor's byte order
    if (!tee.share(1, input, TEEC_MEM_INPUT)) {
        return -1;
    }
    // Zeroed, so that registers the secure world leaves unwritten read as 0.
    if (!output.allocate(MEMREG_OUTPUT_SIZE, true)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    tee.value(0, count);
    if (!tee.share(2, output, TEEC_MEM_OUTPUT) || !tee.invoke(PTA_DALU_CMD_MEMREG_GET)) {
        return -1;
    }
    print_registers(address, output, count);
    if (out != nullptr) {
        *out = word_at(output, 0);
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_memreg_get(uint32_t, const char *address_text, uint32_t count) try {
    return _pta_invoke_memreg_get(address_text, count, nullptr);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_memreg_get(const char *address_text, uint32_t count, uint32_t *out) try {
    if (count > MEMREG_EXPORTED_MAX) {
        KARST_PRINT("invalid read len!\n");
        return -1;
    }
    const karst::tee::SessionScope session;
    return session.open() && _pta_invoke_memreg_get(address_text, count, out) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
