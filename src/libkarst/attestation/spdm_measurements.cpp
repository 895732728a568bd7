// SPDX-License-Identifier: Apache-2.0
// The measurement records of the attested devices: one record per "<name>.bin" file in each
// subdirectory, keyed by name alone, ten in all across the subdirectories.
#include "attestation/bounded_text.hpp"
#include "attestation/directory.hpp"
#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"

namespace karst::att {

namespace {

constexpr std::size_t PATH_FIELD = 256;

} // namespace

void spdm_collect_measurements(std::uint8_t *buffer, std::uint32_t capacity,
                               std::uint32_t *offset) {
    const Directory top =
        open_evidence_directory(paths::SPDM_MEASUREMENTS_DIR, "measurements directory", KARST_SITE);
    if (!top) {
        return;
    }
    const RecordBuffer out{buffer, capacity, offset};
    std::uint32_t records = 0;
    while (records < SPDM_KLV_MAX_RECORDS) {
        const dirent *sub_entry = ::readdir(top.get());
        if (sub_entry == nullptr) {
            break;
        }
        if (hidden(sub_entry->d_name) || plain_file(top.get(), sub_entry->d_name)) {
            continue;
        }
        // Board form of the subdirectory, cut to its field; the run root comes on top.
        const std::string sub_board = bounded(
            std::string(paths::SPDM_MEASUREMENTS_DIR) + "/" + sub_entry->d_name, PATH_FIELD);
        board::Found found{};
        const Directory sub = open_directory(sub_board, KARST_SITE, found);
        if (sub) {
            append_directory(sub.get(), sub_board, ".bin", "measurement", out, records, KARST_SITE);
        }
    }
}

} // namespace karst::att
