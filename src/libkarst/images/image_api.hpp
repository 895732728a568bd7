// SPDX-License-Identifier: Apache-2.0
// What the image API's source files share.
#pragma once

#include <cstdint>

namespace karst::images {

// The base name that the image API's "[Debug ...]" and "[Error ...]" lines print.
constexpr const char *IMAGE_API_FILE = "UtilPTA20.cpp";

// pta20_img_updmsg for the library's own callers: exceptions pass on to the caller's boundary,
// so that one failure prints one line.
int progress_message(uint32_t img_id, uint32_t mode);

} // namespace karst::images
