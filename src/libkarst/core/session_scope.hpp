// SPDX-License-Identifier: Apache-2.0
// The PTA session for the length of a scope: opened on construction, closed on destruction when
// the open succeeded, so that whoever opens it closes it on every path. Every exported call that
// talks to the secure world, and every tool of the project, opens the session through it.
#pragma once

#include "karst.h"

#include <tee_client_api.h>

namespace karst::tee {

class SessionScope {
  public:
    SessionScope() : result_(pta_open_session()) {}
    SessionScope(const SessionScope &) = delete;
    SessionScope &operator=(const SessionScope &) = delete;
    ~SessionScope() {
        if (open()) {
            pta_close_session();
        }
    }
    bool open() const { return result_ == TEEC_SUCCESS; }
    // What the open returned: TEEC_SUCCESS, TEEC_ERROR_BUSY, or the client library's code.
    uint32_t result() const { return result_; }

  private:
    uint32_t result_;
};

} // namespace karst::tee
