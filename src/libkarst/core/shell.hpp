// SPDX-License-Identifier: Apache-2.0
// The one place where the library runs shell commands.
//
// A command line is built from fixed text and words made safe with quote(): whatever a quoted
// word holds (spaces, quotes, ";", "$( )", backquotes, newlines), the shell takes it as one
// literal word. Caller input never reaches the shell any other way.
#pragma once

#include <string>
#include <string_view>

namespace karst::shell {

// One literal shell word: the text as it is when it holds only characters that are never
// special to the shell (letters, digits, "/._-+,:@"); otherwise in single quotes, each '
// written as '\''.
std::string quote(std::string_view text);

// Runs the command line with /bin/sh -c and waits for it. The command inherits standard input,
// output and error only. Returns the wait status (-1 when the shell could not be started); the
// library judges success by the files a command leaves, not by this status.
int run(const std::string &command_line);

} // namespace karst::shell
