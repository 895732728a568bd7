// SPDX-License-Identifier: Apache-2.0
// Every fixed path of the board that the library uses, in its board form. They become real
// paths only through karst::platform_path() (core/run_root.hpp), and are opened only through
// core/board_files.hpp. The image slots ("/nv1/bios_staging.bin", ...) are a column of the image
// table (images/image_table.cpp); docs/security.md lists every path with its check.
#pragma once

#include "karst.h"

namespace karst::paths {

// Result directory of the attestation dump, extraction directory of the RA refresh, home of the
// RA answer and its archive.
constexpr char ATTESTATION_DIR[] = "/tmp/attestation";
constexpr char RA_ARCHIVE_NAME[] = "ra_data.tgz";
constexpr char RA_DATA_NAME[] = "ra_data.bin";
// Written into ATTESTATION_DIR by other software; bytes 7 to 14 are the RA_TID.
constexpr char RA_UID_NAME[] = "ra_uid";
// The persistent store: image slots and the kept RA archive.
constexpr char NV_DIR[] = "/nv1";

// The outside tool that makes (mode 1) and cleans up (mode 2) the REE data archive.
constexpr char REE_DATA_TOOL[] = "/usr/bin/reedata_tool.sh";
constexpr char REE_DATA_ARCHIVE[] = "/tmp/ReeData.tgz";
// Copy of the attestation data block as sent.
constexpr char ATT_DUMP_COPY[] = "/tmp/spdm_attestation_dump.bin";
// Where a data block fetched from the secure world is written.
constexpr char DATABLK_FILE[] = "/tmp/datablk.bin";
// What the controller's SPDM software saved in its boot-time run, and the root CAs it trusts.
constexpr char SPDM_CERT_CHAINS_DIR[] = "/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains";
constexpr char SPDM_MEASUREMENTS_DIR[] = "/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins";
constexpr char SPDM_ROOT_CA_DALU[] = "/etc/defaults/spdm_dalu_rootCA.der";
constexpr char SPDM_ROOT_CA_NV[] = "/etc/defaults/spdm_nv_rootCA.der";

// The controller's eMMC, its image partition, and the copy of the active BMC image.
constexpr char MMC_DEVICE[] = "/dev/mmcblk0";
constexpr char MMC_PARTITION[] = "/dev/mmcblk0p2";
constexpr char FW_IMAGE[] = "/tmp/fw_image";
// The 32 MiB working copy of a slot for the extended-buffer images.
constexpr char EXTENDED_BUFFER[] = "/tmp/extended_buffer.bin";
// An update's progress file: the prefix, the device's progress name, the suffix.
constexpr char PROGRESS_FILE_PREFIX[] = "/tmp/fw-update-";
constexpr char PROGRESS_FILE_SUFFIX[] = ".out";
// The inventory cache (the interface's INVENTORY_FILE).
constexpr char INVENTORY[] = INVENTORY_FILE;

} // namespace karst::paths
