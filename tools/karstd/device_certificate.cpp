// SPDX-License-Identifier: Apache-2.0
#include "device_certificate.hpp"

#include "bus.hpp"
#include "encoding.hpp"

#include "karst.h"

namespace karstd {
namespace {

constexpr uint32_t CERTIFICATE_ROOM = 16384;
constexpr char PEM_START[] = "-----BEGIN";

} // namespace

std::vector<uint8_t> read_certificate(int32_t index) {
    std::vector<uint8_t> buffer(CERTIFICATE_ROOM);
    uint32_t size = CERTIFICATE_ROOM;
    if (pta_invoke_dalu_get_certificate(PTA_DALU_CMD_GET_CERTIFICATE, index, buffer.data(),
                                        &size) != 0 ||
        size == 0 || size > CERTIFICATE_ROOM) {
        throw BusError(error::INTERNAL_FAILURE,
                       "the secure world gave no certificate " + std::to_string(index));
    }
    buffer.resize(size);
    return buffer;
}

std::string certificate_pem(const std::vector<uint8_t> &certificate) {
    const std::string text(certificate.begin(), certificate.end());
    if (text.starts_with(PEM_START)) {
        return text.substr(0, text.find('\0'));
    }
    return pem("CERTIFICATE", certificate);
}

} // namespace karstd
