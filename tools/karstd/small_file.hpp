// SPDX-License-Identifier: Apache-2.0
// Reading a file whole that is small by nature (a certificate, a request, an attestation result).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace karstd {

// The bytes of the regular file at path, when it holds 1 to max bytes. A FIFO or device is
// never waited on (opened without blocking, then refused).
std::optional<std::vector<uint8_t>> read_small_file(const std::string &path, size_t max);

} // namespace karstd
