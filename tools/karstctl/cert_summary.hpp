// SPDX-License-Identifier: Apache-2.0
// What cert get --json tells of a certificate besides its size: its subject, read from the DER.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace karstctl {

// The subject of a DER X.509 certificate as "CN=...,O=...": its attributes in order, the
// common ones by their short names, others by their dotted object identifier. Empty when the
// bytes are not a certificate this reading follows.
std::string der_subject(std::span<const uint8_t> der);

} // namespace karstctl
