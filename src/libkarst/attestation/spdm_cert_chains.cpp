// The certificate chains of the attested devices: one record per "<name>.der" file, keyed by
// name, in the order the directory lists them.
#include "attestation/board_paths.hpp"
#include "attestation/bounded_text.hpp"
#include "attestation/directory.hpp"
#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

namespace karst::att {

namespace {

constexpr std::size_t PATH_FIELD = 256;

} // namespace

void spdm_collect_cert_chains(std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset) {
    const std::string dir_path = platform_path(SPDM_CERT_CHAINS_DIR);
    const Directory dir = open_directory(dir_path);
    if (!dir) {
        KARST_I("SPDM certificates directory not found: %s\n", dir_path.c_str());
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
        const std::string path = platform_path(
            bounded(std::string(SPDM_CERT_CHAINS_DIR) + "/" + entry->d_name, PATH_FIELD));
        HeapBuffer content;
        switch (read_evidence_file(path, content)) {
        case EvidenceRead::ok:
            break;
        case EvidenceRead::open_failed:
            KARST_E("Failed to open certificate file: %s\n", path.c_str());
            continue;
        case EvidenceRead::bad_size:
            KARST_E("Invalid certificate file size: %s\n", path.c_str());
            continue;
        case EvidenceRead::no_memory:
            KARST_E("Failed to allocate memory for certificate buffer\n");
            continue;
        case EvidenceRead::short_read:
            KARST_E("Failed to read complete certificate file: %s\n", path.c_str());
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
