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

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KARST_TEST_LSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KARST_TEST_LSAN 1
#endif
#if defined(KARST_TEST_LSAN)
#include <sanitizer/lsan_interface.h>
#endif

namespace karst::test {
namespace {

using karst::fault::Kind;

std::size_t g_points = 0;
std::size_t g_calls = 0;

// Says at the end of the run how much the sweep covered.
class SweepReport : public ::testing::Environment {
  public:
    void TearDown() override {
        if (g_calls > 0) {
            std::printf("[ sweep    ] %zu failure points in %zu calls\n", g_points, g_calls);
        }
    }
};
[[maybe_unused]] ::testing::Environment *const g_report =
    ::testing::AddGlobalTestEnvironment(new SweepReport);

std::vector<std::string> error_lines(const std::string &out, const std::string &noise) {
    // "[E:routine:line] ...", "[Error ...]" and the routines' own "[routine] ..." lines.
    static const std::regex error_line(R"(^\[(E:|Error |[A-Za-z_0-9]+\]).*)");
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        if (std::regex_match(line, error_line) &&
            (noise.empty() || !std::regex_match(line, std::regex(noise)))) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The routine an error line comes from: "[E:routine:", "[routine]" or the file of "[Error ...]".
std::string routine_of(const std::string &line) {
    static const std::regex form(R"(^\[(E:([^:]+):|Error \S+ ([^:]+):|([^\]]+)\]).*)");
    std::smatch m;
    if (!std::regex_match(line, m, form)) {
        return line;
    }
    return m[2].str() + m[3].str() + m[4].str();
}

// What the one error line of a failed acquisition speaks of, by kind: the routine that failed
// (an allocation, an open, a map, a lock, a registration, an invoke, a thread).
const std::regex &message_of(Kind kind) {
    static const std::regex any(".*");
    static const std::regex heap(R"(.*(alloc|allot|out of memory).*)", std::regex::icase);
    static const std::regex file(R"(.*(open|not exist|creat).*)", std::regex::icase);
    static const std::regex mapping(R"(.*(map|alloc).*)", std::regex::icase);
    static const std::regex lock(R"(.*lock.*)", std::regex::icase);
    static const std::regex thread(R"(.*thread.*)", std::regex::icase);
    static const std::regex shm(R"(.*TEEC_RegisterSharedMemory failed.*)");
    static const std::regex invoke(R"(.*TEEC_InvokeCommand failed.*)");
    switch (kind) {
    case Kind::heap:
        return heap;
    case Kind::file:
        return file;
    case Kind::mapping:
        return mapping;
    case Kind::lock:
        return lock;
    case Kind::thread:
        return thread;
    case Kind::shared_memory:
        return shm;
    case Kind::invoke:
        return invoke;
    default:
        return any;
    }
}

const char *kind_name(Kind kind) {
    static const char *const names[] = {"any",  "heap",   "file",          "mapping",
                                        "lock", "thread", "shared memory", "invoke"};
    return names[static_cast<int>(kind)];
}

// Record locks this process holds, from /proc/locks.
int locks_held() {
    std::ifstream in("/proc/locks");
    const std::string pid = std::to_string(::getpid());
    int held = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 5 && fields >> field; ++i) {
        }
        held += field == pid ? 1 : 0;
    }
    return held;
}

bool leaks_found() {
#if defined(KARST_TEST_LSAN)
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

} // namespace

std::size_t sweep_failures(const SweepCall &c) {
    const int fds = open_fd_count();
    const long mappings = karst::fault::held(Kind::mapping);
    std::size_t points = 0;
    for (std::size_t nth = 1; nth < 10000; ++nth) {
        c.prepare();
        karst::fault::arm(Kind::any, nth);
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = c.call(); });
        const bool fired = karst::fault::fired();
        const Kind kind = karst::fault::fired_kind();
        karst::fault::disarm();
        if (!fired) {
            EXPECT_EQ(rc, c.success_result) << c.name << ": completes once no acquisition fails\n"
                                            << out;
            break;
        }
        ++points;
        const std::string where =
            c.name + ", failing acquisition " + std::to_string(nth) + " (" + kind_name(kind) + ")";
        const bool specified = std::find(c.failure_results.begin(), c.failure_results.end(), rc) !=
                               c.failure_results.end();
        EXPECT_TRUE(specified) << where << " returned " << rc << "\n" << out;
        const std::vector<std::string> errors = error_lines(out, c.expected_noise);
        if (std::getenv("KARST_SWEEP_TRACE") != nullptr) {
            std::printf("%s rc %d: %s\n", where.c_str(), rc,
                        errors.empty() ? "-" : errors.front().c_str());
        }
        // Each routine on the way out reports the failure once (a helper such as readbin
        // reports it, then the routine that called it); one of them names what failed.
        std::set<std::string> routines;
        for (const std::string &line : errors) {
            EXPECT_TRUE(routines.insert(routine_of(line)).second)
                << where << ": " << routine_of(line) << " reported twice:\n"
                << out;
        }
        EXPECT_TRUE(
            errors.empty() ||
            std::any_of(errors.begin(), errors.end(),
                        [&](auto &line) { return std::regex_match(line, message_of(kind)); }))
            << where << " printed:\n"
            << out;
        karst_emu_stats stats{};
        karst_emu_get_stats(&stats);
        EXPECT_EQ(stats.registered, 0u) << where << ": shared memory left registered";
        EXPECT_EQ(stats.sessions, 0u) << where << ": session left open";
        EXPECT_EQ(stats.contexts, 0u) << where << ": context left initialised";
        EXPECT_EQ(open_fd_count(), fds) << where << ": descriptor left open";
        EXPECT_EQ(karst::fault::held(Kind::mapping), mappings) << where << ": mapping left";
        EXPECT_EQ(locks_held(), 0) << where << ": record lock left";
        EXPECT_FALSE(leaks_found()) << where << ": heap leak (see the report above)";

        c.prepare();
        int again = -1;
        const std::string normal = capture_stdout([&] { again = c.call(); });
        EXPECT_EQ(again, c.success_result) << where << ": the normal call that follows\n" << normal;
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
