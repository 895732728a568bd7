// SPDX-License-Identifier: Apache-2.0
#include "fault_injection.hpp"

#include <atomic>

namespace karst::fault {
namespace {

constexpr int KINDS = static_cast<int>(Kind::count);

std::atomic<int> g_kind{-1}; // armed kind, -1 when disarmed
std::atomic<std::size_t> g_nth{0};
std::atomic<bool> g_fired{false};
std::atomic<int> g_fired_kind{0};
std::atomic<std::size_t> g_seen[KINDS];
std::atomic<long> g_held[KINDS];

} // namespace

#if defined(KARST_FAULT_INJECTION)
bool inject(Kind kind) {
    const std::size_t any = g_seen[0].fetch_add(1) + 1;
    const std::size_t mine = g_seen[static_cast<int>(kind)].fetch_add(1) + 1;
    const int armed = g_kind.load();
    if (armed < 0) {
        return false;
    }
    const std::size_t n = armed == 0 ? any : armed == static_cast<int>(kind) ? mine : 0;
    const std::size_t nth = g_nth.load();
    if (n == nth) {
        if (!g_fired.exchange(true)) {
            g_fired_kind.store(static_cast<int>(kind));
        }
        return true;
    }
    return false;
}

void track(Kind kind, int delta) {
    g_held[static_cast<int>(kind)].fetch_add(delta);
}
#endif

void arm(Kind kind, std::size_t nth) {
    g_kind.store(-1);
    for (auto &s : g_seen) {
        s.store(0);
    }
    g_fired.store(false);
    g_fired_kind.store(0);
    g_nth.store(nth);
    g_kind.store(static_cast<int>(kind));
}

void disarm() {
    arm(Kind::any, 0);
    g_kind.store(-1);
}

bool fired() {
    return g_fired.load();
}

Kind fired_kind() {
    return static_cast<Kind>(g_fired_kind.load());
}

long held(Kind kind) {
    return g_held[static_cast<int>(kind)].load();
}

} // namespace karst::fault
