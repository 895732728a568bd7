// SPDX-License-Identifier: Apache-2.0
// The progress line parser on arbitrary text: as the library reads it, the first line of the
// file, at most 127 characters, terminated.
#include "images/progress_line.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char line[128];
    const size_t n = size < sizeof line - 1 ? size : sizeof line - 1;
    std::memcpy(line, data, n);
    line[n] = '\0';
    const int percent = karst::images::parse_progress_line(line);
    (void)percent;
    return 0;
}
