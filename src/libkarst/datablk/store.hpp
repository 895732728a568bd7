// SPDX-License-Identifier: Apache-2.0
// Finding and storing keys in a block: the bodies behind get and set.
#pragma once

#include "core/log.hpp"
#include "datablk/header.hpp"
#include "datablk/klv.hpp"
#include "datablk/records.hpp"

#include <cstdint>
#include <string_view>

namespace karst::datablk {

inline Area area_of(const uint8_t *blk) {
    return {data_area(blk), max_data_len(blk)};
}

// The checks of a get's capacity or a set's value length, and of the key's name; a refusal is
// reported at site.
inline bool length_and_name_ok(uint32_t length, std::string_view name, log::Site site) {
    if (!datablk_len_ok(length)) {
        KARST_E_AT(site, "Incorrect datablk length %x\n", length);
        return false;
    }
    if (!klv::name_ok(name)) {
        KARST_E_AT(site, "Incorrect key name length %zu\n", name.size());
        return false;
    }
    return true;
}

enum class Found {
    yes,
    no,        // the key is not there (or its value is empty)
    bad_crc,   // the stored CRC is wrong (message printed)
    bad_block, // max_data_len out of range, or a record points past the data area (message)
};

struct Lookup {
    Found found;
    const uint8_t *value; // set when found
    uint32_t value_len;
    // The walk as the lookup left it: at the first pair named name, or past the last pair when
    // there is none (at the start after a wrong CRC). A write continues from here.
    PairWalk walk;
    // The CRC of the block up to where the walk stopped (when the CRC is right): a write changes
    // nothing before that point.
    CrcPrefix crc_prefix;
};

// Finds the first pair named name in a block whose CRC is right.
Lookup blk_getenv(std::string_view name, const uint8_t *blk);

// Replaces the value of the last pair named name, or appends a pair. Checks neither the CRC
// nor the magic id and does not update the CRC. -1 when it does not fit or a record points
// past the data area; the block is then unchanged. The walk over the pairs goes on from
// `from`, which no pair named name may precede: PairWalk{area_of(blk)} walks from the start,
// a lookup's walk saves the pairs it has already passed.
int blk_setenv(std::string_view name, const uint8_t *data, uint32_t len, uint8_t *blk,
               PairWalk from);

} // namespace karst::datablk
