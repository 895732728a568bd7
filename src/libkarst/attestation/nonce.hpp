// SPDX-License-Identifier: Apache-2.0
// What a nonce may hold. The nonce reaches a shell command line (the REE data tool's) and a file
// name (the dump's result file), so it is held to what a nonce is: 1 to 64 letters, digits, '-'
// and '_'. Nothing else can reach the shell or leave the result directory.
#pragma once

#include "core/log.hpp"

#include <cstddef>

namespace karst::att {

constexpr std::size_t NONCE_MAX = 64;

// True when nonce is 1 to NONCE_MAX characters of [A-Za-z0-9_-].
bool nonce_ok(const char *nonce);
// The same for a routine: a nonce that is not one is reported at site ("Invalid nonce: ...").
bool nonce_usable(const char *nonce, log::Site site);

} // namespace karst::att
