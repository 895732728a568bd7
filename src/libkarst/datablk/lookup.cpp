// SPDX-License-Identifier: Apache-2.0
// Key lookup: the pairs are walked for the first matching name and the CRC is checked; a wrong
// CRC is reported before anything the walk found.
#include "core/log.hpp"
#include "datablk/store.hpp"

namespace karst::datablk {

Lookup blk_getenv(std::string_view name, const uint8_t *blk) {
    if (blk == nullptr) {
        return {Found::no, nullptr, 0, {}, {}};
    }
    const uint32_t data_len = max_data_len(blk);
    if (!datablk_len_ok(data_len)) {
        KARST_E("Incorrect datablk max data length %x\n", data_len);
        return {Found::bad_block, nullptr, 0, {}, {}};
    }
    const Area area = area_of(blk);

    // The walk is bounded by the data area, so it may come first.
    PairWalk walk{area};
    PairWalk at_pair = walk;
    Pair pair{};
    bool named = false;
    while (next_pair(walk, pair)) {
        if (pair_has_name(area, pair, name)) {
            named = true;
            break;
        }
        at_pair = walk;
    }

    // The CRC in two pieces, split where the walk stopped: a write changes nothing before that
    // point, so its new CRC can start from the first piece.
    const CrcPrefix prefix = datablk_crc_prefix(blk, named ? pair.start : walk.pairs_end());
    if (datablk_crc_from(blk, prefix) != stored_crc(blk)) {
        KARST_E("Data Block bad CRC\n");
        return {Found::bad_crc, nullptr, 0, PairWalk{area}, {}};
    }
    if (walk.out_of_bounds) {
        KARST_E("Data Block record out of bounds at offset %u\n", walk.offset);
        return {Found::bad_block, nullptr, 0, walk, {}};
    }
    if (!named) {
        return {Found::no, nullptr, 0, walk, prefix};
    }
    if (pair.value_len == 0) {
        return {Found::no, nullptr, 0, at_pair, prefix};
    }
    return {Found::yes, area.bytes + pair.value, pair.value_len, at_pair, prefix};
}

} // namespace karst::datablk
