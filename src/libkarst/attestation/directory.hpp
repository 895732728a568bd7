// Opening an evidence directory, and the file name rules of the evidence directories.
#pragma once

#include "core/file_handle.hpp"

#include <string>
#include <string_view>

namespace karst::att {

inline Directory open_directory(const std::string &path) {
    return Directory(directory_open(path.c_str()));
}

// Hidden entries (".", ".." and names beginning with '.') are never evidence.
inline bool hidden(std::string_view name) {
    return !name.empty() && name.front() == '.';
}

// True when the name's extension (from its last '.') is exactly extension; key receives the
// name cut at that '.'.
inline bool has_extension(std::string_view name, std::string_view extension, std::string &key) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || name.substr(dot) != extension) {
        return false;
    }
    key.assign(name.substr(0, dot));
    return true;
}

} // namespace karst::att
