// SPDX-License-Identifier: Apache-2.0
// What a gzip-compressed tar archive holds, checked before the archive is extracted as root:
// only regular files and directories, with relative names that stay inside the directory
// ("..", absolute names and links are refused) and without set-user-ID, set-group-ID or sticky
// bits. Understands ustar, GNU long names and pax path records.
#pragma once

#include <string>

namespace karst::att {

// Null when every member of the archive read from fd may be extracted; otherwise the reason,
// naming the member. fd is read from its start and left open.
const char *archive_members_problem(int fd, std::string &member);

} // namespace karst::att
