// SPDX-License-Identifier: Apache-2.0
// The SPDM root CA certificates that the controller trusts, stored as keys of the attestation
// data block named by their trusted-certificate resource paths.
#include "karst.h"

#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_paths.hpp"
#include "core/log.hpp"

extern "C" {
KARST_API const char *root_ca_files[2] = {
    karst::paths::SPDM_ROOT_CA_DALU,
    karst::paths::SPDM_ROOT_CA_NV,
};
KARST_API const char *root_ca_keys[2] = {
    "Managers/1/SecurityPolicy/SPDM/TrustedCertificates/1",
    "Managers/1/SecurityPolicy/SPDM/TrustedCertificates/2",
};
}

namespace karst::att {

void spdm_add_root_cas(std::uint8_t *block) {
    for (std::size_t i = 0; i < 2; ++i) {
        if (root_ca_files[i] == nullptr || root_ca_keys[i] == nullptr) {
            continue;
        }
        HeapBuffer content;
        if (!read_evidence_file(root_ca_files[i], "Root CA", content, KARST_SITE, "Root CA file")) {
            continue;
        }
        const int rc = pta20_datablk_set(DATABLK_MAGIC_ATT, root_ca_keys[i], content.data(),
                                         static_cast<std::uint32_t>(content.size()), block);
        if (rc != 0) {
            KARST_E("Failed to set Root CA KLV key [%s] (rc: %d)\n", root_ca_keys[i], rc);
        }
    }
}

} // namespace karst::att
