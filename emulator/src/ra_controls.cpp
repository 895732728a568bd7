// SPDX-License-Identifier: Apache-2.0
// Test control: RA data as the application issues it, for tests of the RA refresh that do not
// go through a certificate replacement first.
#include "karst_emu.h"
#include "pta/ra_data.hpp"

#include <cstring>

extern "C" size_t karst_emu_ra_issue(const uint8_t *cert, size_t cert_len, uint8_t *out,
                                     size_t out_len) {
    using namespace karst::emu;
    if ((cert == nullptr && cert_len != 0) || out == nullptr || out_len < ra::RESULT_SIZE) {
        return 0;
    }
    const uint8_t no_tid[8] = {};
    const auto data = ra::issue({cert, cert_len}, no_tid);
    if (data.size() != ra::RESULT_SIZE) {
        return 0;
    }
    std::memcpy(out, data.data(), data.size());
    return data.size();
}
