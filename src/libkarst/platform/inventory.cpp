// The board inventory: named values kept by the secure world (commands 8 and 9), with the
// inventory file as a cache that every exported read and write refreshes and that a read falls
// back to while no session can be opened.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"
#include "core/tee_session.hpp"
#include "core/text_answer.hpp"
#include "inventory_file.hpp"
#include "name_value.hpp"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr size_t INVENTORY_NAME_SIZE = 1024;
constexpr size_t INVENTORY_VALUE_MAX = 32768;
constexpr uint32_t INVENTORY_DEFAULT_READ = 100;

// The 1024-byte name buffer, filled and registered as input; false after printing why not.
bool share_name(karst::tee::SharedBuffer &buffer, const char *name, const char *func) {
    if (!buffer.allocate(INVENTORY_NAME_SIZE, true)) {
        karst::log::error(func, __LINE__, "Failed to allocate input buffer\n");
        return false;
    }
    const size_t length = std::strlen(name);
    if (length + 1 > INVENTORY_NAME_SIZE) {
        karst::log::error(func, __LINE__, "Environment variable name too long\n");
        return false;
    }
    std::memcpy(buffer.data(), name, length + 1);
    if (TEEC_Result res = buffer.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        karst::log::error(func, __LINE__, "TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return false;
    }
    return true;
}

} // namespace

extern "C" int _pta_invoke_inventory_get(const char *name, char *out, uint32_t size) try {
    using namespace karst::tee;

    if (name == nullptr) {
        KARST_E("Environment variable name missing\n");
        return -1;
    }
    SharedBuffer name_buf;
    if (!share_name(name_buf, name, __func__)) {
        return -1;
    }

    const uint32_t capacity = size == 0 ? INVENTORY_DEFAULT_READ : size;
    SharedBuffer value_buf;
    if (!value_buf.allocate(capacity)) {
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
    if (TEEC_Result res = invoke(PTA_DALU_CMD_INVENTORY_GET, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }

    const size_t n = op.size_of(1);
    if (capacity < n) {
        KARST_E("Buffer has less space (%d) than actual data size (%d)\n",
                static_cast<int>(capacity), static_cast<int>(n));
        return -1;
    }
    if (out != nullptr) {
        std::memcpy(out, value_buf.data(), n);
        if (!karst::terminate_text(out, capacity, n)) {
            KARST_E("Value of %d bytes has no terminating zero\n", static_cast<int>(n));
            return -1;
        }
    } else {
        KARST_PRINT("%s=%.*s\n", name, static_cast<int>(n), value_buf.chars());
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int _pta_invoke_inventory_set(const char *name, const char *data, uint32_t size) try {
    using namespace karst::tee;

    if (name == nullptr) {
        KARST_E("Argument must be in name=value format\n");
        return -1;
    }
    SharedBuffer name_buf;
    if (!share_name(name_buf, name, __func__)) {
        return -1;
    }

    // The size is checked before the buffer is taken, so that no size can ask the heap for more
    // than the command carries.
    SharedBuffer value_buf;
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
    if (TEEC_Result res = value_buf.share(TEEC_MEM_INPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed with code 0x%x\n", res);
        return -1;
    }

    Operation op;
    op.whole(0, name_buf).whole(1, value_buf);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(PTA_DALU_CMD_INVENTORY_SET, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n", res, origin);
        return -1;
    }
    return 0;
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
    if (pta_open_session() != TEEC_SUCCESS) {
        return karst::config::read_inventory_file(name, buffer, size);
    }
    const int rc = _pta_invoke_inventory_get(name, buffer, size);
    pta_close_session();
    if (rc != 0) {
        return -1;
    }

    // BIOS versions are stored as "Ver ..."; a value written as "Rev ..." is corrected in the
    // caller's buffer, in the secure world and in the file. The value is looked at only within
    // the caller's buffer, whether or not the secure world terminated it.
    const uint32_t capacity = size == 0 ? INVENTORY_DEFAULT_READ : size;
    const size_t length = strnlen(buffer, capacity);
    if (std::strstr(name, "BIOS") != nullptr) {
        constexpr char rev[] = "Rev";
        const char *end = buffer + length;
        char *at = std::search(buffer, buffer + length, rev, rev + 3);
        if (at != end) {
            KARST_PRINT("'Rev' is detected, convert it to 'Ver'\n");
            std::memcpy(at, "Ver", 3);
            const auto corrected = static_cast<uint32_t>(std::min<size_t>(length + 1, capacity));
            pta20_inventory_set(name, buffer, corrected);
        }
    }
    karst::config::write_inventory_file(name, buffer, size);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_inventory_set(const char *name, const char *data, uint32_t size) try {
    if (name == nullptr) {
        KARST_PRINT("Invalid arguments: name = %s\n", "(null)");
        return -1;
    }
    karst::config::write_inventory_file(name, data, size);
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    const int rc = _pta_invoke_inventory_set(name, data, size);
    pta_close_session();
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
