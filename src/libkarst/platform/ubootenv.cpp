// U-Boot environment variables, kept by the secure world and reached through commands 4 and 5.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"
#include "core/tee_session.hpp"
#include "core/text_answer.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t UBOOTENV_NAME_SIZE = 1024;
constexpr size_t UBOOTENV_VALUE_SIZE = 32768;

} // namespace

extern "C" int _pta_invoke_ubootenv_get(const char *name, char *out, uint32_t out_size) try {
    using namespace karst::tee;

    if (name == nullptr) {
        KARST_E("Environment variable name missing\n");
        return -1;
    }

    SharedBuffer name_buf;
    if (!name_buf.allocate(UBOOTENV_NAME_SIZE)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    const size_t name_len = std::strlen(name);
    if (name_len + 1 > UBOOTENV_NAME_SIZE) {
        KARST_E("Environment variable name too long\n");
        return -1;
    }
    std::memcpy(name_buf.data(), name, name_len + 1);
    if (TEEC_Result res = name_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    SharedBuffer value_buf;
    if (!value_buf.allocate(UBOOTENV_VALUE_SIZE)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (TEEC_Result res = value_buf.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.whole(0, name_buf).whole(1, value_buf);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(PTA_DALU_CMD_UBOOTENV_GET, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }

    // The reported size never exceeds the buffer that was shared.
    const size_t n = std::min(op.size_of(1), value_buf.size());
    if (out_size != 0 && out_size < n) {
        KARST_E("Buffer has less space (%d) than actual data size (%d)\n",
                static_cast<int>(out_size), static_cast<int>(n));
        return -1;
    }
    if (out != nullptr) {
        std::memcpy(out, value_buf.data(), n);
        if (!karst::terminate_text(out, out_size == 0 ? UBOOTENV_VALUE_SIZE : out_size, n)) {
            KARST_E("Value of %d bytes has no terminating zero\n", static_cast<int>(n));
            return -1;
        }
    } else {
        KARST_PRINT("%s=%.*s\n", name, static_cast<int>(n), value_buf.chars());
    }
    return 0;
}
KARST_BOUNDARY(-1)

extern "C" int _pta_invoke_ubootenv_set(const char *name, const char *value) try {
    using namespace karst::tee;

    if (name == nullptr) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }

    SharedBuffer name_buf;
    if (!name_buf.allocate(UBOOTENV_NAME_SIZE)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    const size_t name_len = std::strlen(name);
    if (name_len + 1 > UBOOTENV_NAME_SIZE) {
        KARST_E("Environment variable name too long\n");
        return -1;
    }
    std::memcpy(name_buf.data(), name, name_len + 1);
    if (TEEC_Result res = name_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    SharedBuffer value_buf;
    if (!value_buf.allocate(UBOOTENV_VALUE_SIZE, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    const size_t m = value == nullptr ? 0 : std::strlen(value) + 1;
    if (m > UBOOTENV_VALUE_SIZE) {
        KARST_E("Environment variable name too long\n");
        return -1;
    }
    if (m > 0) {
        std::memcpy(value_buf.data(), value, m);
    }
    if (TEEC_Result res = value_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.whole(0, name_buf).whole(1, value_buf);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(PTA_DALU_CMD_UBOOTENV_SET, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
}
KARST_BOUNDARY(-1)

extern "C" int pta_invoke_ubootenv_get(uint32_t, char *text) try {
    return _pta_invoke_ubootenv_get(text, nullptr, 0);
}
KARST_BOUNDARY(-1)

extern "C" int pta_invoke_ubootenv_set(uint32_t, char *text) try {
    if (text == nullptr || std::strchr(text, '=') == nullptr) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    char *name = text;
    while (*name == '=') {
        ++name;
    }
    char *value = nullptr;
    if (*name == '\0') {
        name = nullptr; // only "=" characters: no name
    } else if (char *end = std::strchr(name, '='); end != nullptr) {
        *end = '\0';
        value = end[1] != '\0' ? end + 1 : nullptr;
    }
    return _pta_invoke_ubootenv_set(name, value);
}
KARST_BOUNDARY(-1)

extern "C" int pta20_ubootenv_get(const char *name, char *buffer, uint32_t size) try {
    if (name == nullptr || buffer == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s, data = %p\n", name ? name : "(null)",
                    static_cast<void *>(buffer));
        return -1;
    }
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_ubootenv_get(name, buffer, size);
    pta_close_session();
    return rc == 0 ? 0 : -1;
}
KARST_BOUNDARY(-1)

extern "C" int pta20_ubootenv_set(const char *name, const char *value) try {
    if (name == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s\n", "(null)");
        return -1;
    }
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_ubootenv_set(name, value);
    pta_close_session();
    return rc == 0 ? 0 : -1;
}
KARST_BOUNDARY(-1)
