// SPDX-License-Identifier: Apache-2.0
// The secure world's answer written to a file a caller names (a CSR, a signature): created or
// truncated, every byte checked through the close.
#pragma once

#include "core/file_handle.hpp"
#include "core/log.hpp"

#include <cstddef>

namespace karst::certs {

// Writes size bytes of data to path. False when the file cannot be opened or written, reported
// at site ("Failed to open file:%s", "Failed to write file:%s").
inline bool write_output(const char *path, const void *data, std::size_t size, log::Site site) {
    File out = File::open(path, "wb");
    if (!out) {
        KARST_E_AT(site, "Failed to open file:%s\n", path);
        return false;
    }
    if (!out.write_and_close(data, size)) {
        KARST_E_AT(site, "Failed to write file:%s\n", path);
        return false;
    }
    return true;
}

} // namespace karst::certs
