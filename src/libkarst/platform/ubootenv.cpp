// U-Boot environment variables, kept by the secure world and reached through commands 4 and 5.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "core/text_answer.hpp"
#include "name_value.hpp"

#include <algorithm>
#include <cstring>

namespace {

using karst::HeapBuffer;
using karst::tee::Exchange;

constexpr size_t UBOOTENV_NAME_SIZE = 1024;
constexpr size_t UBOOTENV_VALUE_SIZE = 32768;

// The variable's name as input parameter 0 of the exchange; failures reported at site.
bool share_name(Exchange &tee, HeapBuffer &buffer, const char *name, karst::log::Site site) {
    if (!buffer.allocate(UBOOTENV_NAME_SIZE)) {
        KARST_E_AT(site, "Failed to allocate input buffer\n");
        return false;
    }
    const size_t length = std::strlen(name);
    if (length + 1 > UBOOTENV_NAME_SIZE) {
        KARST_E_AT(site, "Environment variable name too long\n");
        return false;
    }
    std::memcpy(buffer.data(), name, length + 1);
    return tee.share(0, buffer, TEEC_MEM_INPUT, site.line);
}

// The answer of n bytes to the caller: into out (of out_size bytes; 0 means unbounded), or
// printed as name=value when out is null.
int deliver(const char *name, const HeapBuffer &value, size_t n, char *out, uint32_t out_size,
            karst::log::Site site) {
    if (out_size != 0 && out_size < n) {
        KARST_E_AT(site, "Buffer has less space (%d) than actual data size (%d)\n",
                   static_cast<int>(out_size), static_cast<int>(n));
        return -1;
    }
    if (out == nullptr) {
        KARST_PRINT("%s=%.*s\n", name, static_cast<int>(n), value.chars());
        return 0;
    }
    std::memcpy(out, value.data(), n);
    if (!karst::terminate_text(out, out_size == 0 ? UBOOTENV_VALUE_SIZE : out_size, n)) {
        KARST_E_AT(site, "Value of %d bytes has no terminating zero\n", static_cast<int>(n));
        return -1;
    }
    return 0;
}

} // namespace

extern "C" int _pta_invoke_ubootenv_get(const char *name, char *out, uint32_t out_size) try {
    if (name == nullptr) {
        KARST_E("Environment variable name missing\n");
        return -1;
    }
    HeapBuffer name_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!share_name(tee, name_buf, name, KARST_SITE)) {
        return -1;
    }
    if (!value_buf.allocate(UBOOTENV_VALUE_SIZE)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (!tee.share(1, value_buf, TEEC_MEM_OUTPUT) || !tee.invoke(PTA_DALU_CMD_UBOOTENV_GET)) {
        return -1;
    }
    // The reported size never exceeds the buffer that was shared.
    const size_t n = std::min(tee.size_of(1), value_buf.size());
    return deliver(name, value_buf, n, out, out_size, KARST_SITE);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int _pta_invoke_ubootenv_set(const char *name, const char *value) try {
    if (name == nullptr) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    HeapBuffer name_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!share_name(tee, name_buf, name, KARST_SITE)) {
        return -1;
    }
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
    return tee.share(1, value_buf, TEEC_MEM_INPUT) && tee.invoke(PTA_DALU_CMD_UBOOTENV_SET) ? 0
                                                                                            : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_ubootenv_get(uint32_t, char *text) try {
    return _pta_invoke_ubootenv_get(text, nullptr, 0);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_ubootenv_set(uint32_t, char *text) try {
    karst::NameValue pair;
    if (!karst::split_name_value(text, pair)) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    return _pta_invoke_ubootenv_set(pair.name, pair.value);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_ubootenv_get(const char *name, char *buffer, uint32_t size) try {
    if (name == nullptr || buffer == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s, data = %p\n", name ? name : "(null)",
                    static_cast<void *>(buffer));
        return -1;
    }
    const karst::tee::SessionScope session;
    return session.open() && _pta_invoke_ubootenv_get(name, buffer, size) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_ubootenv_set(const char *name, const char *value) try {
    if (name == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s\n", "(null)");
        return -1;
    }
    const karst::tee::SessionScope session;
    return session.open() && _pta_invoke_ubootenv_set(name, value) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
