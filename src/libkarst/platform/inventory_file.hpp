// SPDX-License-Identifier: Apache-2.0
// The inventory file's look-up and update on a file that is already open, shared by the
// exported read_config/write_config (a caller's path, used as given) and the inventory
// commands (the board's "/tmp/inventory.txt", opened through the board file checks).
#pragma once

#include "core/file_handle.hpp"

#include <cstdint>

namespace karst::config {

// read_config on the open file; path only names it in messages.
int read_entry(const Fd &fd, const char *path, const char *key, char *out, uint32_t out_size);
// write_config's work once the file is open: path only names it in messages.
int write_entry(const Fd &fd, const char *path, const char *key, const char *value,
                uint32_t value_size);

// The same two on the board's inventory file. A file that is missing is created by the write
// (which then returns -1, as write_config does); anything refused by the checks gives -1.
int read_inventory_file(const char *key, char *out, uint32_t out_size);
int write_inventory_file(const char *key, const char *value, uint32_t value_size);

} // namespace karst::config
