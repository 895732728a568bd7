// SPDX-License-Identifier: Apache-2.0
// The secure world serves one session at a time, across all processes. An update holds it for
// minutes, in a process of its own; every other call of karstd opens it for the call's length.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace karstd {

// pta_open_session's answer while another process (or thread) holds the session.
constexpr uint32_t TEE_BUSY = 0xFFFF000Du;

// The library's session for a scope: opened by the constructor, closed by the destructor.
class Session {
  public:
    Session();
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    bool open() const { return code_ == 0; }
    bool busy() const { return code_ == TEE_BUSY; }
    uint32_t code() const { return code_; }

  private:
    uint32_t code_;
};

// Where the daemon's methods ask for the session. While an update runs (holder names it) they
// are answered Unavailable at once; a session held by another program is waited out as the
// library waits (three tries, 100 ms apart), then Unavailable too.
class SecureWorld {
  public:
    // holder: the image type whose update holds the session, or empty.
    explicit SecureWorld(std::function<std::string()> holder) : holder_(std::move(holder)) {}

    // Throws BusError Unavailable while an update runs.
    void check_free() const;
    // Runs call inside an open session; throws Unavailable (busy) or InternalFailure (no
    // session).
    void run(const std::function<void()> &call) const;

  private:
    std::function<std::string()> holder_;
};

} // namespace karstd
