// SPDX-License-Identifier: Apache-2.0
// Certificate retrieval (command 34). Slot 4 of the secure world holds the device's certificate
// chain, DER certificates back to back, root first; the caller's index picks one of them, cut
// out by walking the encoding. Slot 5 holds one object that is passed through whole.
#include "karst.h"

#include "attestation/der_chain.hpp"
#include "core/boundary.hpp"
#include "core/exchange.hpp"
#include "core/log.hpp"
#include "core/session_scope.hpp"

#include <algorithm>
#include <cstring>

namespace {

using karst::att::DerWalk;
using karst::log::Site;

constexpr uint32_t CHAIN_SLOT = 4;
constexpr uint32_t OBJECT_SLOT = 5;
constexpr uint32_t INDEX_UNAVAILABLE = 3;
constexpr uint32_t INDEX_OBJECT = 5;

constexpr int code_of(TEEC_Result result) {
    return static_cast<int>(result);
}

// The chain position that an index stands for (the chain is in the reverse of index order).
constexpr uint32_t position_of(uint32_t index) {
    return index == 4 ? 0 : 3 - index;
}

// n bytes at from into the caller's buffer of *size bytes, *size then n.
int copy_out(const uint8_t *from, size_t n, uint8_t *buf, uint32_t *size, Site site) {
    if (n > *size) {
        KARST_E_AT(site, "Buffer too small: need %zu, have %zu", n, static_cast<size_t>(*size));
        return code_of(TEEC_ERROR_SHORT_BUFFER);
    }
    std::memcpy(buf, from, n);
    *size = static_cast<uint32_t>(n);
    return 0;
}

// Why the walk did not find the certificate, reported at site; the routine's result.
int walk_failed(const DerWalk &walk, size_t data_size, int32_t cert_index, Site site) {
    switch (walk.outcome) {
    case DerWalk::Outcome::found:
    case DerWalk::Outcome::not_found:
        break;
    case DerWalk::Outcome::short_header:
        KARST_E_AT(site, "Invalid certificate format at offset %zu", walk.offset);
        return code_of(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::bad_tag:
        KARST_E_AT(site, "Invalid certificate tag at offset %zu: 0x%02x (expected 0x30)",
                   walk.offset, walk.tag);
        return code_of(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::bad_length:
        KARST_E_AT(site, "Invalid length encoding at offset %zu", walk.offset);
        return code_of(TEEC_ERROR_BAD_FORMAT);
    case DerWalk::Outcome::overrun:
        KARST_E_AT(site, "Certificate %d length %llu exceeds buffer size %zu",
                   static_cast<int>(walk.position), static_cast<unsigned long long>(walk.size),
                   data_size - walk.offset);
        return code_of(TEEC_ERROR_BAD_FORMAT);
    }
    KARST_E_AT(site, "Certificate %d (cert_index %d) not found in concatenated data",
               static_cast<int>(walk.position), cert_index);
    return code_of(TEEC_ERROR_ITEM_NOT_FOUND);
}

// The certificate of the index, cut out of the chain in data, into the caller's buffer.
int copy_certificate(std::span<const uint8_t> data, int32_t cert_index, uint8_t *buf,
                     uint32_t *size, Site site) {
    const DerWalk walk =
        karst::att::walk_der_chain(data, position_of(static_cast<uint32_t>(cert_index)));
    if (walk.outcome == DerWalk::Outcome::found) {
        return copy_out(data.data() + walk.offset, static_cast<size_t>(walk.size), buf, size, site);
    }
    return walk_failed(walk, data.size(), cert_index, site);
}

} // namespace

extern "C" int pta_invoke_dalu_get_certificate(uint32_t command, int32_t cert_index, uint8_t *buf,
                                               uint32_t *size) try {
    using namespace karst::tee;

    if (buf == nullptr || size == nullptr || *size == 0) {
        KARST_E("Invalid buffer or size");
        return code_of(TEEC_ERROR_BAD_PARAMETERS);
    }
    // From here on a failure leaves the caller's buffer cleared.
    std::memset(buf, 0, *size);
    const auto index = static_cast<uint32_t>(cert_index);
    if (index == INDEX_UNAVAILABLE) {
        KARST_E("Certificate index %d not available", cert_index);
        return code_of(TEEC_ERROR_ITEM_NOT_FOUND);
    }
    if (index > INDEX_OBJECT) {
        KARST_E("Invalid certificate index %d", cert_index);
        return code_of(TEEC_ERROR_BAD_PARAMETERS);
    }
    karst::HeapBuffer scratch;
    Exchange tee(__func__, Wording::brief);
    if (!scratch.allocate(*size, true)) {
        KARST_E("Failed to allocate temporary buffer");
        return code_of(TEEC_ERROR_OUT_OF_MEMORY);
    }
    tee.value(0, index == INDEX_OBJECT ? OBJECT_SLOT : CHAIN_SLOT);
    if (!tee.share(1, scratch, TEEC_MEM_OUTPUT)) {
        return tee.code();
    }
    if (!tee.invoke(command)) {
        return code_of(TEEC_ERROR_ITEM_NOT_FOUND);
    }
    if (index == INDEX_OBJECT) {
        // copy_out takes no more than *size bytes, the shared buffer's size.
        return copy_out(scratch.data(), tee.size_of(1), buf, size, KARST_SITE);
    }
    // A reported length beyond the shared buffer is never followed.
    const std::span<const uint8_t> data(scratch.data(), std::min(tee.size_of(1), scratch.size()));
    return copy_certificate(data, cert_index, buf, size, KARST_SITE);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_get_cert(int32_t cert_index, uint8_t *buf, uint32_t *size) try {
    if (buf == nullptr || size == nullptr || *size == 0) {
        return -1;
    }
    const karst::tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, static_cast<uintptr_t>(static_cast<uint32_t>(cert_index)), 0, 0, 0, *size,
               reinterpret_cast<uintptr_t>(buf));
    if (pta_invoke_cmd(PTA_DALU_CMD_GET_CERTIFICATE, block) != 0) {
        return -1;
    }
    *size = static_cast<uint32_t>(block[3]);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
