// SPDX-License-Identifier: Apache-2.0
// "/tmp/attestation": the result directory of the attestation dump, the extraction directory of
// the RA refresh and the home of the RA answer. Shared by those commands, opened only here.
#pragma once

#include "core/board_files.hpp"
#include "core/log.hpp"

namespace karst::att {

// The directory, checked, made with mode 0777 (the umask applies) when missing. When it cannot
// be made, "Failed to create path (%s)" is reported at site; a refusal has printed its reason.
board::Opened attestation_dir(log::Site site);

// The same, emptied with "rm -rf <dir>/*" when it existed already.
board::Opened fresh_attestation_dir(log::Site site);

} // namespace karst::att
