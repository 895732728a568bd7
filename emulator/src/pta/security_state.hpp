// SPDX-License-Identifier: Apache-2.0
// What the application remembers of the device's security provisioning, for validation: kept
// in the state directory (file "security").
#pragma once

namespace karst::emu::security {

// The RA certificate was replaced and RA data issued for it.
void note_ra_issued();
bool ra_issued();

} // namespace karst::emu::security
