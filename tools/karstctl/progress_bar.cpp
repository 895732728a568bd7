// SPDX-License-Identifier: Apache-2.0
#include "progress_bar.hpp"

#include <algorithm>
#include <cstdio>

namespace karstctl {

namespace {

constexpr double MIB = 1024.0 * 1024.0;
// Room for the figures behind the bar (" 42%  26.9/64.0 MiB  00:07"), with plenty to spare.
constexpr size_t FIGURES_ROOM = 96;
// The bar between "[" and "]" takes what the terminal has left (one column kept free, so that
// the line never wraps), within these bounds.
constexpr int FRAME_COLUMNS = 3;
constexpr int BAR_MIN = 10;
constexpr int BAR_MAX = 50;
constexpr unsigned SECONDS_PER_MINUTE = 60;

std::string figures(const Progress &progress) {
    char text[FIGURES_ROOM];
    const auto seconds = static_cast<unsigned>(progress.elapsed);
    if (progress.total > 0) {
        std::snprintf(text, sizeof text, " %3d%%  %.1f/%.1f MiB  %02u:%02u", progress.percent,
                      static_cast<double>(progress.written) / MIB,
                      static_cast<double>(progress.total) / MIB, seconds / SECONDS_PER_MINUTE,
                      seconds % SECONDS_PER_MINUTE);
    } else {
        std::snprintf(text, sizeof text, " %3d%%  %02u:%02u", progress.percent,
                      seconds / SECONDS_PER_MINUTE, seconds % SECONDS_PER_MINUTE);
    }
    return text;
}

} // namespace

std::string render_bar(const Progress &progress, int width) {
    const std::string tail = figures(progress);
    const int room =
        std::clamp(width - static_cast<int>(tail.size()) - FRAME_COLUMNS, BAR_MIN, BAR_MAX);
    const int percent = std::clamp(progress.percent, 0, 100);
    const int done = room * percent / 100;
    std::string bar = "\r[";
    bar.append(static_cast<size_t>(done), '#');
    bar.append(static_cast<size_t>(room - done), '-');
    bar += "]";
    bar += tail;
    return bar;
}

std::string render_line(const Progress &progress) {
    return std::to_string(std::clamp(progress.percent, 0, 100)) + "%\n";
}

} // namespace karstctl
