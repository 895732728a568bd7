// SPDX-License-Identifier: Apache-2.0
#include "security_state.hpp"

#include "kv_store.hpp"

namespace karst::emu::security {
namespace {

constexpr char STORE_NAME[] = "security";
constexpr char RA_ISSUED[] = "ra_issued";

} // namespace

void note_ra_issued() {
    KvStore store(STORE_NAME);
    if (store.load()) {
        store.set(RA_ISSUED, "1");
        store.save();
    }
}

bool ra_issued() {
    KvStore store(STORE_NAME);
    return store.load() && store.get(RA_ISSUED).has_value();
}

} // namespace karst::emu::security
