// SPDX-License-Identifier: Apache-2.0
#include "shared_buffer.hpp"

#include "fault_injection.hpp"

namespace karst::tee {
namespace {

// A failed invoke, when a test asks for one.
bool invoke_fails(std::uint32_t &origin) {
    origin = 0;
    if (fault::inject(fault::Kind::invoke)) {
        origin = TEEC_ORIGIN_COMMS;
        return true;
    }
    return false;
}

// An invoke with no session open is refused here, as a bad parameter of the API, and never
// reaches the client library.
TEEC_Result invoke_open_session(std::uint32_t command, TEEC_Operation *operation,
                                std::uint32_t &origin) {
    if (invoke_fails(origin)) {
        return TEEC_ERROR_COMMUNICATION;
    }
    if (!session_open()) {
        origin = TEEC_ORIGIN_API;
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    return TEEC_InvokeCommand(&session(), command, operation, &origin);
}

// A registration or an allocation: the acquisition point of shared memory, only on an open
// context.
TEEC_Result memory_request(TEEC_Result (*request)(TEEC_Context *, TEEC_SharedMemory *),
                           TEEC_SharedMemory &record) {
    if (fault::inject(fault::Kind::shared_memory)) {
        return TEEC_ERROR_OUT_OF_MEMORY;
    }
    if (!context_open()) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    return request(&context(), &record);
}

} // namespace

TEEC_Result register_memory(TEEC_SharedMemory &record) {
    return memory_request(TEEC_RegisterSharedMemory, record);
}

TEEC_Result allocate_memory(TEEC_SharedMemory &record) {
    return memory_request(TEEC_AllocateSharedMemory, record);
}

TEEC_Result SharedRegion::share(void *buffer, std::size_t size, std::uint32_t flags) {
    release();
    record_ = TEEC_SharedMemory{};
    record_.buffer = buffer;
    record_.size = size;
    record_.flags = flags;
    const TEEC_Result res = register_memory(record_);
    registered_ = res == TEEC_SUCCESS;
    return res;
}

TEEC_Result SharedRegion::allocate(std::size_t size, std::uint32_t flags) {
    release();
    record_ = TEEC_SharedMemory{};
    record_.size = size;
    record_.flags = flags;
    const TEEC_Result res = allocate_memory(record_);
    registered_ = res == TEEC_SUCCESS;
    return res;
}

void SharedRegion::release() {
    if (registered_) {
        TEEC_ReleaseSharedMemory(&record_);
        registered_ = false;
    }
}

void Operation::set_type(int index, std::uint32_t type) {
    // paramTypes: four bits per parameter, the first parameter's lowest.
    constexpr unsigned TYPE_BITS = 4;
    constexpr std::uint32_t TYPE_MASK = 0xF;
    const unsigned shift = static_cast<unsigned>(index) * TYPE_BITS;
    op_.paramTypes = (op_.paramTypes & ~(TYPE_MASK << shift)) | (type << shift);
}

Operation &Operation::whole(int index, TEEC_SharedMemory *record) {
    set_type(index, TEEC_MEMREF_WHOLE);
    op_.params[index].memref.parent = record;
    op_.params[index].memref.offset = 0;
    op_.params[index].memref.size = record->size;
    return *this;
}

Operation &Operation::value(int index, std::uint32_t a, std::uint32_t b) {
    set_type(index, TEEC_VALUE_INPUT);
    op_.params[index].value.a = a;
    op_.params[index].value.b = b;
    return *this;
}

TEEC_Result invoke(std::uint32_t command, Operation &operation, std::uint32_t &origin) {
    return invoke_open_session(command, operation.get(), origin);
}

TEEC_Result invoke_without_operation(std::uint32_t command, std::uint32_t &origin) {
    return invoke_open_session(command, nullptr, origin);
}

} // namespace karst::tee
