// The attestation commands' fixed files, in their board form. They become real paths only
// through karst::platform_path().
#pragma once

namespace karst::att {

// Result directory of the dump and extraction directory of the RA refresh.
constexpr char ATTESTATION_DIR[] = "/tmp/attestation";
// The outside tool that makes (mode 1) and cleans up (mode 2) the REE data archive.
constexpr char REE_DATA_TOOL[] = "/usr/bin/reedata_tool.sh";
constexpr char REE_DATA_ARCHIVE[] = "/tmp/ReeData.tgz";
// Copy of the attestation data block as sent.
constexpr char ATT_DUMP_COPY[] = "/tmp/spdm_attestation_dump.bin";
// Where a data block fetched from the secure world is written.
constexpr char DATABLK_FILE[] = "/tmp/datablk.bin";
// The RA archive's default home and the names inside.
constexpr char RA_ARCHIVE_DIR[] = "/nv1";
constexpr char RA_ARCHIVE_NAME[] = "ra_data.tgz";
constexpr char RA_DATA_NAME[] = "ra_data.bin";
// Written into ATTESTATION_DIR by other software; bytes 7 to 14 are the RA_TID.
constexpr char RA_UID_NAME[] = "ra_uid";
// What the controller's SPDM software saved in its boot-time run.
constexpr char SPDM_CERT_CHAINS_DIR[] = "/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains";
constexpr char SPDM_MEASUREMENTS_DIR[] = "/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins";

} // namespace karst::att
