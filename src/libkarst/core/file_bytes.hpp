// SPDX-License-Identifier: Apache-2.0
// A whole file read with readbin, owned by the routine that read it and freed on every path.
#pragma once

#include "karst.h"

#include "board_files.hpp"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace karst {

class FileBytes {
  public:
    FileBytes() = default;
    FileBytes(const FileBytes &) = delete;
    FileBytes &operator=(const FileBytes &) = delete;
    ~FileBytes() { reset(); }

    // readbin's result (0 or -1); readbin prints its own messages.
    int read(const char *path) {
        reset();
        uint8_t *data = nullptr;
        uint32_t size = 0;
        if (readbin(path, &data, &size) != 0) {
            return -1;
        }
        data_ = data;
        size_ = size;
        return 0;
    }
    // The same for a board path, opened through the checks of board_files.hpp: a refused file
    // prints its refusal at site and nothing else; a missing one prints readbin's open message
    // unless asked to stay quiet. Found::ok when the whole file was read.
    enum class Missing { reported, quiet };
    board::Found read_board(std::string_view board_path, log::Site site,
                            Missing missing = Missing::reported);
    void reset() {
        std::free(data_);
        data_ = nullptr;
        size_ = 0;
    }

    uint8_t *data() const { return data_; }
    uint32_t size() const { return size_; }

  private:
    uint8_t *data_ = nullptr;
    uint32_t size_ = 0;
};

// Whether two paths a caller gave name the same file: the same text, or (following links, as
// an open would) the same file on the same device.
bool same_file(const char *a, const char *b);

// Writes key material to the caller's path: the file is created fresh with mode 0600 (what was
// at the path is removed first, so no one who could open the old file reads the key) and
// written with write(2), never through a stdio buffer that would outlive the call in the heap.
// On an open failure prints writebin's message; 0 or -1.
int write_secret_file(const char *path, const void *data, uint32_t size);

} // namespace karst
