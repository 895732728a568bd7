// SPDX-License-Identifier: Apache-2.0
// The progress files of an update, "/tmp/fw-update-<name>.out", written by the component that
// programs the device and read by the library. Only five image types have one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace karst::images {

// The name in the progress file's path for an image type, or null.
const char *progress_name(uint32_t type);

// The board path of the type's progress file; empty for a type without one.
std::string progress_path(uint32_t type);

// The percentage in the first line of the progress file at board_path, or -1.
int read_progress(std::string_view board_path);

} // namespace karst::images
