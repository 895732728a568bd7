// Certificate retrieval (command 34). Slot 4 of the secure world holds the device's certificate
// chain, DER certificates back to back, root first; the caller's index picks one of them, cut
// out by walking the encoding. Slot 5 holds one object that is passed through whole.
#include "karst.h"

#include "attestation/der_chain.hpp"
#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/shared_buffer.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t CHAIN_SLOT = 4;
constexpr uint32_t OBJECT_SLOT = 5;
constexpr uint32_t INDEX_UNAVAILABLE = 3;
constexpr uint32_t INDEX_OBJECT = 5;

// The chain position that an index stands for (the chain is in the reverse of index order).
constexpr uint32_t position_of(uint32_t index) {
    return index == 4 ? 0 : 3 - index;
}

} // namespace

extern "C" int pta_invoke_dalu_get_certificate(uint32_t command, int32_t cert_index, uint8_t *buf,
                                               uint32_t *size) try {
    using namespace karst::tee;

    if (buf == nullptr || size == nullptr || *size == 0) {
        KARST_E("Invalid buffer or size");
        return static_cast<int>(TEEC_ERROR_BAD_PARAMETERS);
    }
    // From here on a failure leaves the caller's buffer cleared.
    std::memset(buf, 0, *size);

    const auto index = static_cast<uint32_t>(cert_index);
    if (index == INDEX_UNAVAILABLE) {
        KARST_E("Certificate index %d not available", cert_index);
        return static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND);
    }
    if (index > INDEX_OBJECT) {
        KARST_E("Invalid certificate index %d", cert_index);
        return static_cast<int>(TEEC_ERROR_BAD_PARAMETERS);
    }
    const uint32_t slot = index == INDEX_OBJECT ? OBJECT_SLOT : CHAIN_SLOT;

    SharedBuffer scratch;
    if (!scratch.allocate(*size, true)) {
        KARST_E("Failed to allocate temporary buffer");
        return static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY);
    }
    if (TEEC_Result res = scratch.share(TEEC_MEM_OUTPUT); res != TEEC_SUCCESS) {
        KARST_E("TEEC_RegisterSharedMemory failed: 0x%x", res);
        return static_cast<int>(res);
    }
    Operation op;
    op.value(0, slot).whole(1, scratch);
    uint32_t origin = 0;
    if (TEEC_Result res = invoke(command, op, origin); res != TEEC_SUCCESS) {
        KARST_E("TEEC_InvokeCommand failed: 0x%x origin 0x%x", res, origin);
        return static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND);
    }
    const size_t reported = op.size_of(1);

    if (index == INDEX_OBJECT) {
        if (reported > *size) {
            KARST_E("Buffer too small: need %zu, have %zu", reported, static_cast<size_t>(*size));
            return static_cast<int>(TEEC_ERROR_SHORT_BUFFER);
        }
        std::memcpy(buf, scratch.data(), reported);
        *size = static_cast<uint32_t>(reported);
        return 0;
    }
    // A reported length beyond the shared buffer is never followed.
    const std::span<const uint8_t> data(scratch.data(), std::min(reported, scratch.size()));
    const uint32_t position = position_of(index);
    using karst::att::DerWalk;
    const DerWalk walk = karst::att::walk_der_chain(data, position);
    switch (walk.outcome) {
    case DerWalk::Outcome::found:
        if (walk.size > *size) {
            KARST_E("Buffer too small: need %llu, have %zu",
                    static_cast<unsigned long long>(walk.size), static_cast<size_t>(*size));
            return static_cast<int>(TEEC_ERROR_SHORT_BUFFER);
        }
        std::memcpy(buf, data.data() + walk.offset, static_cast<size_t>(walk.size));
        *size = static_cast<uint32_t>(walk.size);
        return 0;
    case DerWalk::Outcome::short_header:
        KARST_E("Invalid certificate format at offset %zu", walk.offset);
        return static_cast<int>(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::bad_tag:
        KARST_E("Invalid certificate tag at offset %zu: 0x%02x (expected 0x30)", walk.offset,
                walk.tag);
        return static_cast<int>(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::bad_length:
        KARST_E("Invalid length encoding at offset %zu", walk.offset);
        return static_cast<int>(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::overrun:
        KARST_E("Certificate %d length %llu exceeds buffer size %zu",
                static_cast<int>(walk.position), static_cast<unsigned long long>(walk.size),
                data.size() - walk.offset);
        return static_cast<int>(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::not_found:
        break;
    }
    KARST_E("Certificate %d (cert_index %d) not found in concatenated data",
            static_cast<int>(position), cert_index);
    return static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_get_cert(int32_t cert_index, uint8_t *buf, uint32_t *size) try {
    if (buf == nullptr || size == nullptr || *size == 0) {
        return -1;
    }
    if (pta_open_session() != TEEC_SUCCESS) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, static_cast<uintptr_t>(static_cast<uint32_t>(cert_index)), 0, 0, 0, *size,
               reinterpret_cast<uintptr_t>(buf));
    const int rc = pta_invoke_cmd(PTA_DALU_CMD_GET_CERTIFICATE, block);
    if (rc == 0) {
        *size = static_cast<uint32_t>(block[3]);
    }
    pta_close_session();
    return rc == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}
