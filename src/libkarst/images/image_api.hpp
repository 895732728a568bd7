// What the image API's source files share.
#pragma once

namespace karst::images {

// The base name that the image API's "[Debug ...]" and "[Error ...]" lines print.
constexpr const char *IMAGE_API_FILE = "UtilPTA20.cpp";

} // namespace karst::images
