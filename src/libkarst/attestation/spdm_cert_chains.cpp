// The certificate chains of the attested devices: one record per "<name>.der" file, keyed by
// name, in the order the directory lists them.
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

void spdm_collect_cert_chains(std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset) {
    board::Found found{};
    const Directory dir = open_directory(paths::SPDM_CERT_CHAINS_DIR, KARST_SITE, found);
    if (found == board::Found::refused) {
        return;
    }
    if (!dir) {
        KARST_I("SPDM certificates directory not found: %s\n",
                platform_path(paths::SPDM_CERT_CHAINS_DIR).c_str());
        return;
    }
    std::uint32_t records = 0;
    while (records < SPDM_KLV_MAX_RECORDS) {
        const dirent *entry = ::readdir(dir.get());
        if (entry == nullptr) {
            break;
        }
        std::string key;
        if (hidden(entry->d_name) || !has_extension(entry->d_name, ".der", key)) {
            continue;
        }
        const std::string board_path =
            bounded(std::string(paths::SPDM_CERT_CHAINS_DIR) + "/" + entry->d_name, PATH_FIELD);
        HeapBuffer content;
        if (read_evidence_file(board_path, "certificate", content, KARST_SITE) !=
            EvidenceRead::ok) {
            continue;
        }
        if (klv_append(key.c_str(), content.data(), static_cast<std::uint32_t>(content.size()),
                       buffer, capacity, offset) != 0) {
            KARST_E("Failed to append certificate KLV: %s\n", key.c_str());
            continue;
        }
        ++records;
    }
}

} // namespace karst::att
