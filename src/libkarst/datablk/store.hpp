// Finding and storing keys in a block: the bodies behind get and set.
#pragma once

#include "datablk/header.hpp"
#include "datablk/records.hpp"

#include <cstdint>
#include <string_view>

namespace karst::datablk {

inline Area area_of(const uint8_t *blk) {
    return {data_area(blk), max_data_len(blk)};
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
};

// Finds the first pair named name in a block whose CRC is right.
Lookup blk_getenv(std::string_view name, const uint8_t *blk);

// Replaces the value of the last pair named name, or appends a pair. Checks neither the CRC
// nor the magic id and does not update the CRC. -1 when it does not fit or a record points
// past the data area; the block is then unchanged.
int blk_setenv(std::string_view name, const uint8_t *data, uint32_t len, uint8_t *blk);

} // namespace karst::datablk
