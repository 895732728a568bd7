// SPDX-License-Identifier: Apache-2.0
#include "nonce.hpp"

namespace karst::att {

bool nonce_ok(const char *nonce) {
    if (nonce == nullptr) {
        return false;
    }
    std::size_t n = 0;
    for (; nonce[n] != '\0'; ++n) {
        const char c = nonce[n];
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!allowed || n == NONCE_MAX) {
            return false;
        }
    }
    return n > 0;
}

bool nonce_usable(const char *nonce, log::Site site) {
    if (nonce_ok(nonce)) {
        return true;
    }
    KARST_E_AT(site, "Invalid nonce: 1 to 64 letters, digits, '-' or '_' expected\n");
    return false;
}

} // namespace karst::att
