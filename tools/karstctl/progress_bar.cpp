#include "progress_bar.hpp"

#include <algorithm>
#include <cstdio>

namespace karstctl {

namespace {

constexpr double MIB = 1024.0 * 1024.0;

std::string figures(const Progress &progress) {
    char text[96];
    const auto seconds = static_cast<unsigned>(progress.elapsed);
    if (progress.total > 0) {
        std::snprintf(text, sizeof text, " %3d%%  %.1f/%.1f MiB  %02u:%02u", progress.percent,
                      static_cast<double>(progress.written) / MIB,
                      static_cast<double>(progress.total) / MIB, seconds / 60, seconds % 60);
    } else {
        std::snprintf(text, sizeof text, " %3d%%  %02u:%02u", progress.percent, seconds / 60,
                      seconds % 60);
    }
    return text;
}

} // namespace

std::string render_bar(const Progress &progress, int width) {
    const std::string tail = figures(progress);
    const int room = std::clamp(width - static_cast<int>(tail.size()) - 3, 10, 50);
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
