// The measurement records of the attested devices: one record per "<name>.bin" file in each
// subdirectory, keyed by name alone, ten in all across the subdirectories.
#include "attestation/bounded_text.hpp"
#include "attestation/directory.hpp"
#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

namespace karst::att {

namespace {

constexpr std::size_t PATH_FIELD = 256;

} // namespace

void spdm_collect_measurements(std::uint8_t *buffer, std::uint32_t capacity,
                               std::uint32_t *offset) {
    board::Found found{};
    const Directory top = open_directory(paths::SPDM_MEASUREMENTS_DIR, KARST_SITE, found);
    if (found == board::Found::refused) {
        return;
    }
    if (!top) {
        KARST_I("SPDM measurements directory not found: %s\n",
                platform_path(paths::SPDM_MEASUREMENTS_DIR).c_str());
        return;
    }
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
        const Directory sub = open_directory(sub_board, KARST_SITE, found);
        if (!sub) {
            continue;
        }
        while (records < SPDM_KLV_MAX_RECORDS) {
            const dirent *entry = ::readdir(sub.get());
            if (entry == nullptr) {
                break;
            }
            std::string key;
            if (hidden(entry->d_name) || !has_extension(entry->d_name, ".bin", key)) {
                continue;
            }
            const std::string board_path = bounded(sub_board + "/" + entry->d_name, PATH_FIELD);
            HeapBuffer content;
            if (read_evidence_file(board_path, "measurement", content, KARST_SITE) !=
                EvidenceRead::ok) {
                continue;
            }
            if (klv_append(key.c_str(), content.data(), static_cast<std::uint32_t>(content.size()),
                           buffer, capacity, offset) != 0) {
                KARST_E("Failed to append measurement KLV: %s\n", key.c_str());
                continue;
            }
            ++records;
        }
    }
}

} // namespace karst::att
