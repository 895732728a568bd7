// The PTA session for the length of a scope: opened on construction, closed on destruction when
// the open succeeded, so an exported call closes what it opened on every path.
#pragma once

#include "karst.h"

#include <tee_client_api.h>

namespace karst::tee {

class SessionScope {
  public:
    SessionScope() : open_(pta_open_session() == TEEC_SUCCESS) {}
    SessionScope(const SessionScope &) = delete;
    SessionScope &operator=(const SessionScope &) = delete;
    ~SessionScope() {
        if (open_) {
            pta_close_session();
        }
    }
    bool open() const { return open_; }

  private:
    bool open_;
};

} // namespace karst::tee
