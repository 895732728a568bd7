// SPDX-License-Identifier: Apache-2.0
// An archive path as a shell command takes it after changing directory: a relative path is
// made absolute against the caller's working directory (so it names the file the caller meant,
// and the word can never begin with '-' and be read as an option), then quoted.
#pragma once

#include <string>

namespace karst::att {

std::string archive_word(const std::string &path);

} // namespace karst::att
