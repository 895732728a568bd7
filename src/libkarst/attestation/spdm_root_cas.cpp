// The SPDM root CA certificates that the controller trusts, stored as keys of the attestation
// data block named by their trusted-certificate resource paths.
#include "karst.h"

#include "attestation/evidence_file.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"

#include <unistd.h>

extern "C" {
KARST_API const char *root_ca_files[2] = {
    "/etc/defaults/spdm_dalu_rootCA.der",
    "/etc/defaults/spdm_nv_rootCA.der",
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
        const std::string path = platform_path(root_ca_files[i]);
        if (::access(path.c_str(), F_OK) != 0) {
            KARST_I("SPDM Root CA file not found: %s\n", path.c_str());
            continue;
        }
        HeapBuffer content;
        switch (read_evidence_file(path, content)) {
        case EvidenceRead::ok:
            break;
        case EvidenceRead::open_failed:
            KARST_E("Failed to open Root CA file: %s\n", path.c_str());
            continue;
        case EvidenceRead::bad_size:
            KARST_E("Invalid Root CA file size: %s\n", path.c_str());
            continue;
        case EvidenceRead::no_memory:
            KARST_E("Failed to allocate memory for Root CA buffer\n");
            continue;
        case EvidenceRead::short_read:
            KARST_E("Failed to read complete Root CA file: %s\n", path.c_str());
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
