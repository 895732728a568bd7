// SPDX-License-Identifier: Apache-2.0
// The TEE client calls that failed under karstctl's library calls, and their codes and origins
// by name. karstctl is linked so that the library's calls of the TEE client library pass
// through tee_failure.cpp (the linker's --wrap, see CMakeLists.txt): each failure is recorded
// with its code and origin as the client library returned them; the library itself is the same.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace karstctl {

struct TeeFailure {
    const char *call = nullptr; // "TEEC_InvokeCommand", ...
    uint32_t code = 0;
    std::optional<uint32_t> origin; // for the calls that return one
};

// Forgets the failure recorded so far (at the start of each library call).
void forget_tee_failure();
// The last failure recorded since then.
std::optional<TeeFailure> last_tee_failure();

// "TEEC_ERROR_ITEM_NOT_FOUND (0xffff0008)", or "0x..." for a code without a name.
std::string describe_code(uint32_t code);
// "TEEC_ORIGIN_TRUSTED_APP (0x4)", or "0x..." for an origin without a name.
std::string describe_origin(uint32_t origin);
// "TEEC_InvokeCommand: TEEC_ERROR_ITEM_NOT_FOUND (0xffff0008) from TEEC_ORIGIN_TRUSTED_APP
// (0x4)".
std::string describe(const TeeFailure &failure);

} // namespace karstctl
