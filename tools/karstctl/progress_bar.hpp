// SPDX-License-Identifier: Apache-2.0
// How karstctl shows an update's progress: a bar redrawn in place on a terminal, plain
// percentage lines otherwise.
#pragma once

#include <cstdint>
#include <string>

namespace karstctl {

struct Progress {
    int percent = 0;
    uint64_t written = 0; // bytes programmed, when known
    uint64_t total = 0;   // bytes to program; 0 when not known
    double elapsed = 0;   // seconds since the update started
};

// One redraw of the bar: "\r[#####-----]  42%  26.9/64.0 MiB  00:07" (bytes left out when the
// total is not known), padded to width columns at most.
std::string render_bar(const Progress &progress, int width);
// One line for a non-terminal: "42%".
std::string render_line(const Progress &progress);

} // namespace karstctl
