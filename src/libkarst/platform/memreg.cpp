// Secure registers: runs of consecutive 32-bit registers that only the secure world can read
// (command 18). Each register is printed with its address; the first value can be handed back.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"
#include "core/tee_session.hpp"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t MEMREG_INPUT_SIZE = 1024;
constexpr size_t MEMREG_OUTPUT_SIZE = 32768;
constexpr uint32_t MEMREG_OUTPUT_WORDS = MEMREG_OUTPUT_SIZE / sizeof(uint32_t);
constexpr uint32_t MEMREG_EXPORTED_MAX = 64;

// Hexadecimal with an optional "0x"; cut to 32 bits the same way on every processor.
uint32_t parse_address(const char *text) {
    return static_cast<uint32_t>(std::strtoull(text, nullptr, 16));
}

uint32_t word_at(const uint8_t *data, uint32_t index) {
    uint32_t word = 0;
    std::memcpy(&word, data + index * sizeof word, sizeof word);
    return word;
}

} // namespace

extern "C" int _pta_invoke_memreg_get(const char *address_text, uint32_t count, uint32_t *out) try {
    using namespace karst::tee;

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

    SharedBuffer input;
    if (!input.allocate(MEMREG_INPUT_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    std::memcpy(input.data(), &address, sizeof address); // the processor's byte order
    if (TEEC_Result res = input.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    // Zeroed, so that registers the secure world leaves unwritten read as 0.
    SharedBuffer output;
    if (!output.allocate(MEMREG_OUTPUT_SIZE, true)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (TEEC_Result res = output.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.value(0, count).whole(1, input).whole(2, output);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(PTA_DALU_CMD_MEMREG_GET, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }

    for (uint32_t n = 0; n < count; ++n) {
        KARST_PRINT("Read secure info from register addr:[%08x] --> value:[%08x]\n",
                    address + 4u * n, word_at(output.data(), n));
    }
    if (out != nullptr) {
        *out = word_at(output.data(), 0);
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
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_memreg_get(address_text, count, out);
    pta_close_session();
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
