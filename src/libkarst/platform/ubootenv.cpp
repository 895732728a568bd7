// SPDX-License-Identifier: Apache-2.0
// U-Boot environment variables, kept by the secure world and reached through commands 4 and 5.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "name_value.hpp"
#include "named_store.hpp"

#include <algorithm>
#include <cstring>

namespace {

using karst::HeapBuffer;
using karst::tee::Exchange;

constexpr size_t UBOOTENV_VALUE_SIZE = 32768;

} // namespace

extern "C" int _pta_invoke_ubootenv_get(const char *name, char *out, uint32_t out_size) try {
    if (name == nullptr) {
        KARST_E("Environment variable name missing\n");
        return -1;
    }
    HeapBuffer name_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!karst::store::share_name(tee, name_buf, name, KARST_SITE)) {
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
    return karst::store::deliver(name, value_buf, n, out,
                                 out_size == 0 ? UBOOTENV_VALUE_SIZE : out_size, KARST_SITE);
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
    if (!karst::store::share_name(tee, name_buf, name, KARST_SITE)) {
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
