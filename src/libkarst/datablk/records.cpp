// SPDX-License-Identifier: Apache-2.0
// Bounded walks over a data area's records.
#include "datablk/records.hpp"

#include "core/log.hpp"
#include "datablk/klv.hpp"

namespace karst::datablk {
namespace {

// Size of the value record at offset (2 + N + V), or 0 when it runs past the area.
uint64_t value_record_size(Area area, uint32_t offset) {
    const uint32_t n = area.bytes[offset + 1];
    const uint64_t room = area.size - offset;
    if (2 + static_cast<uint64_t>(n) > room) {
        return 0;
    }
    const uint64_t size = 2 + static_cast<uint64_t>(n) + klv::be_decode(area.bytes + offset + 2, n);
    return size <= room ? size : 0;
}

} // namespace

bool tlv_valid(Area area, uint32_t offset) {
    return area.bytes != nullptr && offset < area.size && area.size - offset >= 2 &&
           area.bytes[offset] != 0 && area.bytes[offset + 1] != 0;
}

Step get_next_tlv(Area area, uint32_t &offset) {
    if (!tlv_valid(area, offset)) {
        const void *record = area.bytes == nullptr || offset >= area.size
                                 ? nullptr
                                 : static_cast<const void *>(area.bytes + offset);
        KARST_E("Not a valid tlv (0x%p)\n", record);
        return Step::invalid;
    }
    uint64_t size = 0;
    if (area.bytes[offset] == klv::TAG_NAME) {
        size = 2 + static_cast<uint64_t>(area.bytes[offset + 1]);
        if (size > area.size - offset) {
            size = 0;
        }
    } else {
        size = value_record_size(area, offset);
    }
    if (size == 0) {
        return Step::out_of_bounds;
    }
    offset += static_cast<uint32_t>(size);
    return Step::next;
}

bool next_pair(PairWalk &walk, Pair &pair) {
    const Area area = walk.area;
    const uint32_t start = walk.offset;
    if (walk.out_of_bounds || !tlv_valid(area, start)) {
        return false;
    }
    const uint32_t name_len = area.bytes[start + 1];
    if (2 + static_cast<uint64_t>(name_len) > area.size - start) {
        walk.out_of_bounds = true;
        return false;
    }
    const uint32_t value_record = start + 2 + name_len;
    if (!tlv_valid(area, value_record)) {
        // A name with no value behind it: the records end after the name.
        walk.offset = value_record;
        walk.dangling_name = start;
        return false;
    }
    const uint64_t value_size = value_record_size(area, value_record);
    if (value_size == 0) {
        walk.offset = value_record;
        walk.out_of_bounds = true;
        return false;
    }
    const uint32_t n = area.bytes[value_record + 1];
    pair.start = start;
    pair.name_len = name_len;
    pair.value_record = value_record;
    pair.value = value_record + 2 + n;
    pair.value_len = static_cast<uint32_t>(value_size - 2 - n);
    pair.end = value_record + static_cast<uint32_t>(value_size);
    walk.offset = pair.end;
    return true;
}

RecordsEnd walk_records(Area area) {
    uint32_t offset = 0;
    while (offset < area.size) {
        if (!tlv_valid(area, offset)) {
            break;
        }
        if (get_next_tlv(area, offset) == Step::out_of_bounds) {
            return {offset, true};
        }
        if (!tlv_valid(area, offset)) {
            break;
        }
        if (get_next_tlv(area, offset) == Step::out_of_bounds) {
            return {offset, true};
        }
    }
    return {offset, false};
}

} // namespace karst::datablk
