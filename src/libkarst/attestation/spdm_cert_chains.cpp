// SPDX-License-Identifier: Apache-2.0
// The certificate chains of the attested devices: one record per "<name>.der" file, keyed by
// name, in the order the directory lists them.
#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"

namespace karst::att {

void spdm_collect_cert_chains(std::uint8_t *buffer, std::uint32_t capacity, std::uint32_t *offset) {
    const Directory dir =
        open_evidence_directory(paths::SPDM_CERT_CHAINS_DIR, "certificates directory", KARST_SITE);
    if (!dir) {
        return;
    }
    std::uint32_t records = 0;
    append_directory(dir.get(), paths::SPDM_CERT_CHAINS_DIR, ".der", "certificate",
                     {buffer, capacity, offset}, records, KARST_SITE);
}

} // namespace karst::att
