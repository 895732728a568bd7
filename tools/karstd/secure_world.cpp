// SPDX-License-Identifier: Apache-2.0
#include "secure_world.hpp"

#include "bus.hpp"

#include "karst.h"

#include <cstdio>

namespace karstd {

Session::Session() : code_(pta_open_session()) {}

Session::~Session() {
    if (code_ == 0) {
        pta_close_session();
    }
}

void SecureWorld::check_free() const {
    const std::string type = holder_();
    if (!type.empty()) {
        throw BusError(error::UNAVAILABLE,
                       "the secure world is busy with the " + type + " update; try again after it");
    }
}

void SecureWorld::run(const std::function<void()> &call) const {
    check_free();
    const Session session;
    if (session.busy()) {
        throw BusError(error::UNAVAILABLE, "another program holds the secure world's session");
    }
    if (!session.open()) {
        char code[16];
        std::snprintf(code, sizeof code, "0x%x", session.code());
        throw BusError(error::INTERNAL_FAILURE,
                       std::string("no session with the secure world (") + code + ")");
    }
    call();
}

} // namespace karstd
