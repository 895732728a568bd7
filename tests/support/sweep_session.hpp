// SPDX-License-Identifier: Apache-2.0
// Runs a routine that needs the open session inside a session of its own.
#pragma once

#include "karst.h"

#include <functional>

namespace karst::test {

constexpr int NO_SESSION = -100;

inline int in_session(const std::function<int()> &fn) {
    if (pta_open_session() != 0) {
        return NO_SESSION;
    }
    const int rc = fn();
    pta_close_session();
    return rc;
}

} // namespace karst::test
