// SPDX-License-Identifier: Apache-2.0
#include "exchange.hpp"

#include "log.hpp"

#include <cstring>

namespace karst::tee {

bool Exchange::share(int index, void *data, std::size_t size, std::uint32_t flags, int line) {
    result_ = regions_[index].share(data, size, flags);
    return shared(index, line);
}

bool Exchange::share_copy(int index, const void *data, std::size_t size, std::uint32_t flags,
                          int line) {
    result_ = regions_[index].allocate(size, flags);
    if (result_ == TEEC_SUCCESS && size > 0) {
        std::memcpy(regions_[index].record()->buffer, data, size);
    }
    return shared(index, line);
}

bool Exchange::shared(int index, int line) {
    if (result_ == TEEC_SUCCESS) {
        operation_.whole(index, regions_[index]);
        return true;
    }
    if (wording_ == Wording::brief) {
        log::error(routine_, line, "TEEC_RegisterSharedMemory failed: 0x%x", result_);
    } else {
        log::error(routine_, line, "TEEC_RegisterSharedMemory failed with code 0x%x\n", result_);
    }
    return false;
}

bool Exchange::invoked(TEEC_Result result, std::uint32_t origin, int line) {
    result_ = result;
    if (result_ == TEEC_SUCCESS) {
        return true;
    }
    if (wording_ == Wording::brief) {
        log::error(routine_, line, "TEEC_InvokeCommand failed: 0x%x origin 0x%x", result_, origin);
    } else {
        log::error(routine_, line, "TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n",
                   result_, origin);
    }
    return false;
}

bool Exchange::invoke(std::uint32_t command, int line) {
    std::uint32_t origin = 0;
    const TEEC_Result result = tee::invoke(command, operation_, origin);
    return invoked(result, origin, line);
}

bool Exchange::invoke_bare(std::uint32_t command, int line) {
    std::uint32_t origin = 0;
    const TEEC_Result result = invoke_without_operation(command, origin);
    return invoked(result, origin, line);
}

} // namespace karst::tee
