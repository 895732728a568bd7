// SPDX-License-Identifier: Apache-2.0
#include "support/fault_sweep.hpp"

#include "core/fault_injection.hpp"
#include "support/test_env.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <unistd.h>

// Present in sanitizer builds only: counts heap blocks no longer reachable.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak)); // NOLINT(*-naming)

namespace karst::test {
namespace {

using karst::fault::Kind;

constexpr std::size_t MOST_POINTS = 10000; // beyond it, the call is taken never to complete
std::size_t g_points = 0;
std::size_t g_calls = 0;

// Says at the end of the run how much the sweep covered.
struct SweepReport {
    ~SweepReport() {
        if (g_calls > 0) {
            std::printf("[ sweep    ] %zu failure points in %zu calls\n", g_points, g_calls);
        }
    }
} g_report;

// Each kind of acquisition, by its index: its name, and what the one error line of its failure
// speaks of (the routine that failed: an allocation, an open, a map, a lock, a thread, ...).
const std::pair<const char *, std::regex> &form_of(Kind kind) {
    const auto icase = std::regex::icase;
    static const std::pair<const char *, std::regex> forms[] = {
        {"any", std::regex(".*")},
        {"heap", std::regex(".*(alloc|allot|out of memory).*", icase)},
        {"file", std::regex(".*(open|not exist|creat).*", icase)},
        {"mapping", std::regex(".*(map|alloc).*", icase)},
        {"lock", std::regex(".*lock.*", icase)},
        {"thread", std::regex(".*thread.*", icase)},
        {"shared memory",
         std::regex(".*TEEC_RegisterSharedMemory failed( with code|:) 0x[0-9a-f]+")},
        {"invoke",
         std::regex(".*TEEC_InvokeCommand failed( with code|:) 0x[0-9a-f]+ origin 0x[0-9a-f]+.*")}};
    return forms[static_cast<int>(kind)];
}

// "[E:routine:line] ...", "[Error ...]" and the routines' own "[routine] ..." lines, except the
// noise; each with the routine it comes from ("[E:routine:", "[routine]", the file of "[Error").
std::vector<std::pair<std::string, std::string>> error_lines(const std::string &out,
                                                             const std::string &noise) {
    static const std::regex error_line(R"(^\[(E:|Error |[A-Za-z_0-9]+\]).*)");
    static const std::regex routine(R"(^\[(E:([^:]+):|Error \S+ ([^:]+):|([^\]]+)\]).*)");
    std::vector<std::pair<std::string, std::string>> lines;
    std::istringstream in(out);
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
        if (std::regex_match(line, error_line) &&
            (noise.empty() || !std::regex_match(line, std::regex(noise)))) {
            const bool known = std::regex_match(line, m, routine);
            lines.emplace_back(line, known ? m[2].str() + m[3].str() + m[4].str() : line);
        }
    }
    return lines;
}

// Record locks this process holds, from /proc/locks (the fifth field is the holder).
int locks_held() {
    const std::regex mine(R"((\S+\s+){4})" + std::to_string(::getpid()) + R"(\s.*)");
    std::ifstream in("/proc/locks");
    int held = 0;
    for (std::string line; std::getline(in, line);) {
        held += std::regex_match(line, mine) ? 1 : 0;
    }
    return held;
}

// The checks of one failing run (see sweep_failures).
void check_failing_run(const SweepCall &c, const std::string &where, int rc, Kind kind,
                       const std::string &out, int fds, long mappings) {
    const auto &results = c.failure_results;
    EXPECT_NE(std::find(results.begin(), results.end(), rc), results.end())
        << where << " returned " << rc << "\n"
        << out;
    const auto errors = error_lines(out, c.expected_noise);
    if (std::getenv("KARST_SWEEP_TRACE") != nullptr) {
        std::printf("%s rc %d: %s\n", where.c_str(), rc,
                    errors.empty() ? "-" : errors.front().first.c_str());
    }
    // Each routine on the way out reports the failure once (a helper such as readbin reports
    // it, then the routine that called it); one of them names what failed.
    std::set<std::string> routines;
    bool named = errors.empty();
    for (const auto &[line, routine] : errors) {
        EXPECT_TRUE(routines.insert(routine).second) << where << ": " << routine << " twice";
        named = named || std::regex_match(line, form_of(kind).second);
    }
    EXPECT_TRUE(named) << where << " printed:\n" << out;
    karst_emu_stats stats{};
    karst_emu_get_stats(&stats);
    EXPECT_EQ(stats.registered, 0u) << where << ": shared memory left registered";
    EXPECT_EQ(stats.sessions, 0u) << where << ": session left open";
    EXPECT_EQ(stats.contexts, 0u) << where << ": context left initialised";
    EXPECT_EQ(open_fd_count(), fds) << where << ": descriptor left open";
    EXPECT_EQ(karst::fault::held(Kind::mapping), mappings) << where << ": mapping left";
    EXPECT_EQ(locks_held(), 0) << where << ": record lock left";
    EXPECT_FALSE(__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0)
        << where << ": heap leak (see the report above)";
}

} // namespace

std::size_t sweep_failures(const SweepCall &c) {
    const int fds = open_fd_count();
    const long mappings = karst::fault::held(Kind::mapping);
    std::size_t points = 0;
    int rc = 0;
    for (std::size_t nth = 1; nth < MOST_POINTS; ++nth, ++points) {
        c.prepare();
        karst::fault::arm(Kind::any, nth);
        std::string out = capture_stdout([&] { rc = c.call(); });
        const bool fired = karst::fault::fired();
        const Kind kind = karst::fault::fired_kind();
        karst::fault::disarm();
        if (!fired) {
            EXPECT_EQ(rc, c.success_result) << c.name << ": completes once nothing fails\n" << out;
            break;
        }
        const std::string where = c.name + ", failing acquisition " + std::to_string(nth) + " (" +
                                  form_of(kind).first + ")";
        check_failing_run(c, where, rc, kind, out, fds, mappings);
        c.prepare();
        out = capture_stdout([&] { rc = c.call(); });
        EXPECT_EQ(rc, c.success_result) << where << ": the normal call that follows\n" << out;
    }
    g_points += points;
    ++g_calls;
    return points;
}

void sweep_each(const std::vector<SweepCall> &calls) {
    for (const SweepCall &c : calls) {
        EXPECT_GT(sweep_failures(c), 0u) << c.name << " reaches no acquisition";
    }
}

std::size_t swept_points() {
    return g_points;
}

} // namespace karst::test
