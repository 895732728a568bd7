// SPDX-License-Identifier: Apache-2.0
// Walks over the records of a data area. Every walk is bounded by the area: a record whose
// lengths point past its end stops the walk and is reported as out of bounds, never followed.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace karst::datablk {

// A data area: size bytes at bytes.
struct Area {
    const uint8_t *bytes;
    uint32_t size;
};

// A record is valid when its tag byte and its length byte lie in the area and are non-zero.
bool tlv_valid(Area area, uint32_t offset);

enum class Step { next, invalid, out_of_bounds };

// Steps offset over the record there: 2 + L for a name record (tag 0x16), 2 + N + V for any
// other. An invalid record prints its message; neither it nor one that runs past the area
// moves offset.
Step get_next_tlv(Area area, uint32_t &offset);

// One key/value pair, as offsets in the data area.
struct Pair {
    uint32_t start;        // name record
    uint32_t name_len;     // L
    uint32_t value_record; // start + 2 + L
    uint32_t value;        // first value byte
    uint32_t value_len;    // V
    uint32_t end;          // first byte after the value
};

// The walk by pairs (lookup and write): the first record of a pair is skipped by 2 + its
// length byte and the second by 2 + N + V, whatever their tags. Once next_pair answers false,
// offset is where the records end (the used length), unless out_of_bounds is set: then offset
// is that of the record that points past the area.
struct PairWalk {
    Area area;
    uint32_t offset = 0;
    bool out_of_bounds = false;
    // Where the records end in a name with no value behind it (the walk then stops after that
    // name): the start of that name, else NO_NAME. A set writes over it.
    uint32_t dangling_name = NO_NAME;

    static constexpr uint32_t NO_NAME = UINT32_MAX;
    // Where the pairs that can be read end: before a trailing name without a value.
    uint32_t pairs_end() const { return dangling_name != NO_NAME ? dangling_name : offset; }
};

bool next_pair(PairWalk &walk, Pair &pair);

// Whether the pair's name is name, byte for byte.
inline bool pair_has_name(Area area, const Pair &pair, std::string_view name) {
    return pair.name_len == name.size() &&
           std::memcmp(area.bytes + pair.start + 2, name.data(), name.size()) == 0;
}

// The walk by records (get_next_tlv), two records per round, for the used length.
struct RecordsEnd {
    uint32_t offset;
    bool out_of_bounds;
};
RecordsEnd walk_records(Area area);

} // namespace karst::datablk
