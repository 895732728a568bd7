// SPDX-License-Identifier: Apache-2.0
// Storing a pair: the value of an existing key is rewritten in place (later pairs move), a new
// key is appended behind the last pair. Nothing is written unless the new pair fits.
#include "core/log.hpp"
#include "datablk/klv.hpp"
#include "datablk/store.hpp"

#include <cstring>
#include <optional>

namespace karst::datablk {
namespace {

// The walk from `from` to the end of the records, with the last pair named name on the way.
std::optional<Pair> last_named(Area area, PairWalk &walk, std::string_view name) {
    Pair pair{};
    std::optional<Pair> match;
    while (next_pair(walk, pair)) {
        if (pair_has_name(area, pair, name)) {
            match = pair;
        }
    }
    return match;
}

// Writes the new pair at used, over whatever stood up to records_end (a trailing name).
int append_pair(uint8_t *bytes, uint32_t area_size, uint32_t used, uint32_t records_end,
                std::string_view name, const uint8_t *data, uint32_t len) {
    std::memset(bytes + used, 0, records_end - used);
    const size_t written = klv::encode_pair({bytes + used, area_size - used}, name, {data, len});
    if (written == 0) {
        return -1;
    }
    // The records end here, whatever stood behind where they used to end.
    if (used + written < area_size) {
        bytes[used + written] = 0;
    }
    return 0;
}

// Rewrites the value of match (now new_size bytes as a pair): the later pairs move and what lies
// behind the records' new end is zeroed.
void replace_value(uint8_t *bytes, uint32_t area_size, uint32_t used, const Pair &match,
                   uint64_t new_size, const uint8_t *data, uint32_t len) {
    const uint32_t old_size = match.end - match.start;
    const auto new_end = static_cast<uint32_t>(used - old_size + new_size);
    const auto pair_end = static_cast<uint32_t>(match.start + new_size);
    std::memmove(bytes + pair_end, bytes + match.end, used - match.end);
    uint8_t *value = bytes + match.value_record;
    value += klv::encode_value_header(len, value);
    std::memcpy(value, data, len);
    std::memset(bytes + new_end, 0, area_size - new_end);
}

} // namespace

int blk_setenv(std::string_view name, const uint8_t *data, uint32_t len, uint8_t *blk,
               PairWalk from) {
    if (blk == nullptr || !klv::name_ok(name)) {
        return -1;
    }
    const Area area = area_of(blk);
    uint8_t *const bytes = data_area(blk);

    PairWalk walk = from;
    const std::optional<Pair> match = last_named(area, walk, name);
    if (walk.out_of_bounds) {
        KARST_E("Data Block record out of bounds at offset %u\n", walk.offset);
        return -1;
    }
    // A trailing name without a value is no pair: the new records take its place, so that the
    // block stays one that reads and checks as it did.
    const uint32_t used = walk.pairs_end();
    const uint64_t new_size = klv::pair_size(name.size(), len);
    // The room test does not count what a replaced pair would release.
    if (new_size > area.size - used) {
        return -1;
    }
    if (!match) {
        return append_pair(bytes, area.size, used, walk.offset, name, data, len);
    }
    replace_value(bytes, area.size, used, *match, new_size, data, len);
    return 0;
}

} // namespace karst::datablk
