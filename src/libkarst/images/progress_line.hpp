// SPDX-License-Identifier: Apache-2.0
// The progress line that the programming component writes during an update:
//   written: 1048576, total: 67108864, 1%
#pragma once

namespace karst::images {

// The percentage of a progress line (the text up to its first zero byte), or -1 when a marker
// is missing or a field is longer than 15 characters.
int parse_progress_line(const char *line);

} // namespace karst::images
