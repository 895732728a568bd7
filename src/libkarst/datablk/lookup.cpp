// Key lookup: the CRC is checked first, then the pairs are walked for the first matching name.
#include "core/log.hpp"
#include "datablk/store.hpp"

namespace karst::datablk {

Lookup blk_getenv(std::string_view name, const uint8_t *blk) {
    if (blk == nullptr) {
        return {Found::no, nullptr, 0};
    }
    const uint32_t data_len = max_data_len(blk);
    if (!datablk_len_ok(data_len)) {
        KARST_E("Incorrect datablk max data length %x\n", data_len);
        return {Found::bad_block, nullptr, 0};
    }
    if (!datablk_crc_ok(blk)) {
        KARST_E("Data Block bad CRC\n");
        return {Found::bad_crc, nullptr, 0};
    }

    const Area area = area_of(blk);
    PairWalk walk{area};
    Pair pair{};
    while (next_pair(walk, pair)) {
        if (pair_has_name(area, pair, name)) {
            if (pair.value_len == 0) {
                return {Found::no, nullptr, 0};
            }
            return {Found::yes, area.bytes + pair.value, pair.value_len};
        }
    }
    if (walk.out_of_bounds) {
        KARST_E("Data Block record out of bounds at offset %u\n", walk.offset);
        return {Found::bad_block, nullptr, 0};
    }
    return {Found::no, nullptr, 0};
}

} // namespace karst::datablk
