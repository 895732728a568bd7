// SPDX-License-Identifier: Apache-2.0
#include "progress_file.hpp"

#include "progress_line.hpp"

#include "karst.h"

#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/file_handle.hpp"

#include <cstdio>

namespace karst::images {

const char *progress_name(uint32_t type) {
    switch (type) {
    case IMG_TYPE_BIOS:
        return "BIOS";
    case IMG_TYPE_CPLD:
        return "CPLD";
    case IMG_TYPE_NVFPGA:
        return "NVFPGA";
    case IMG_TYPE_NVBIOS:
        return "NVC1BIOS";
    case IMG_TYPE_EROTMCU:
        return "NUVEROTMCU";
    default:
        return nullptr;
    }
}

std::string progress_path(uint32_t type) {
    const char *name = progress_name(type);
    if (name == nullptr) {
        return {};
    }
    return std::string(paths::PROGRESS_FILE_PREFIX) + name + paths::PROGRESS_FILE_SUFFIX;
}

int read_progress(std::string_view board_path) {
    // Written by another component: taken only when it is a regular file of root's or this
    // user's (a FIFO there would otherwise stall the poll).
    board::Opened opened = board::open_file(board_path, O_RDONLY, KARST_SITE);
    File file(opened ? file_from(std::move(opened.fd), "r") : nullptr);
    if (!file) {
        return -1;
    }
    char line[128]; // the first line, at most 127 characters
    if (std::fgets(line, sizeof line, file.get()) == nullptr) {
        return -1;
    }
    return parse_progress_line(line);
}

} // namespace karst::images
