// SPDX-License-Identifier: Apache-2.0
// The board inventory: named values kept by the secure world (commands 8 and 9), with the
// inventory file as a cache that every exported read and write refreshes and that a read falls
// back to while no session can be opened.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"
#include "inventory_file.hpp"
#include "name_value.hpp"
#include "named_store.hpp"

#include <algorithm>
#include <cstring>

namespace {

using karst::HeapBuffer;
using karst::tee::Exchange;

constexpr size_t INVENTORY_VALUE_MAX = 32768;
constexpr uint32_t INVENTORY_DEFAULT_READ = 100;
// BIOS versions are stored as "Ver ..."; "Rev" is the same mark written wrongly.
constexpr char BIOS_WRONG_MARK[] = "Rev";
constexpr char BIOS_MARK[] = "Ver";
constexpr size_t BIOS_MARK_LENGTH = sizeof BIOS_MARK - 1;

// The room of a read: the caller's size, or 100 bytes for size 0.
uint32_t read_capacity(uint32_t size) {
    return size == 0 ? INVENTORY_DEFAULT_READ : size;
}

// A BIOS value holding "Rev" is corrected in the caller's buffer and stored again in the secure
// world. The value is looked at only within the buffer's capacity bytes, whether or not the
// secure world terminated it.
void correct_bios_mark(const char *name, char *buffer, uint32_t capacity) {
    if (std::strstr(name, "BIOS") == nullptr) {
        return;
    }
    const size_t length = strnlen(buffer, capacity);
    char *end = buffer + length;
    char *at = std::search(buffer, end, BIOS_WRONG_MARK, BIOS_WRONG_MARK + BIOS_MARK_LENGTH);
    if (at == end) {
        return;
    }
    KARST_PRINT("'Rev' is detected, convert it to 'Ver'\n");
    std::memcpy(at, BIOS_MARK, BIOS_MARK_LENGTH);
    const auto corrected = static_cast<uint32_t>(std::min<size_t>(length + 1, capacity));
    pta20_inventory_set(name, buffer, corrected); // reports its failure; the read still succeeds
}

} // namespace

extern "C" int _pta_invoke_inventory_get(const char *name, char *out, uint32_t size) try {
    if (name == nullptr) {
        KARST_E("Environment variable name missing\n");
        return -1;
    }
    const uint32_t capacity = read_capacity(size);
    HeapBuffer name_buf;
    HeapBuffer value_buf;
    Exchange tee;
    if (!karst::store::share_name(tee, name_buf, name, KARST_SITE)) {
        return -1;
    }
    if (!value_buf.allocate(capacity)) {
        KARST_E("Failed to allocate output buffer\n");
        return -1;
    }
    if (!tee.share(1, value_buf, TEEC_MEM_OUTPUT) || !tee.invoke(PTA_DALU_CMD_INVENTORY_GET)) {
        return -1;
    }
    return karst::store::deliver(name, value_buf, tee.size_of(1), out, capacity, KARST_SITE);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int _pta_invoke_inventory_set(const char *name, const char *data, uint32_t size) try {
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
    // The size is checked before the buffer is taken, so that no size can ask the heap for more
    // than the command carries.
    if (size > INVENTORY_VALUE_MAX) {
        KARST_E("Environment variable name too long\n");
        return -1;
    }
    if (!value_buf.allocate(size, true)) {
        KARST_E("Failed to allocate input buffer\n");
        return -1;
    }
    if (data != nullptr && size != 0) {
        std::memcpy(value_buf.data(), data, size);
    }
    return tee.share(1, value_buf, TEEC_MEM_INPUT) && tee.invoke(PTA_DALU_CMD_INVENTORY_SET) ? 0
                                                                                             : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_inventory_get(uint32_t, char *text) try {
    return _pta_invoke_inventory_get(text, nullptr, 0);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta_invoke_inventory_set(uint32_t, char *text) try {
    karst::NameValue nv;
    if (!karst::split_name_value(text, nv)) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    const auto size = nv.value != nullptr ? static_cast<uint32_t>(std::strlen(nv.value) + 1) : 0u;
    return _pta_invoke_inventory_set(nv.name, nv.value, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_inventory_get(const char *name, char *buffer, uint32_t size) try {
    if (name == nullptr || buffer == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s, data = %p\n", name ? name : "(null)",
                    static_cast<void *>(buffer));
        return -1;
    }
    {
        const karst::tee::SessionScope session;
        if (!session.open()) {
            return karst::config::read_inventory_file(name, buffer, size);
        }
        if (_pta_invoke_inventory_get(name, buffer, size) != 0) {
            return -1;
        }
    } // closed here: the correction stores the value in a session of its own
    correct_bios_mark(name, buffer, read_capacity(size));
    karst::config::write_inventory_file(name, buffer, size); // only a cache: a failure is no error
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_inventory_set(const char *name, const char *data, uint32_t size) try {
    if (name == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s\n", "(null)");
        return -1;
    }
    karst::config::write_inventory_file(name, data, size); // only a cache: a failure is no error
    const karst::tee::SessionScope session;
    return session.open() && _pta_invoke_inventory_set(name, data, size) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
