// The progress files of an update, "/tmp/fw-update-<name>.out", written by the component that
// programs the device and read by the library. Only five image types have one.
#pragma once

#include <cstdint>
#include <string>

namespace karst::images {

// The name in the progress file's path for an image type, or null.
const char *progress_name(uint32_t type);

// The board path of the type's progress file; empty for a type without one.
std::string progress_path(uint32_t type);

// The percentage in the first line of the file at path (the real path), or -1.
int read_progress(const std::string &path);

} // namespace karst::images
