#include "support/fault_sweep.hpp"

#include "core/fault_injection.hpp"
#include "support/test_env.hpp"

#include <regex>

namespace karst::test {
namespace {

size_t error_lines(const std::string &out) {
    static const std::regex error_line(R"((^|\n)\[E(rror)?[: ])");
    return static_cast<size_t>(std::distance(
        std::sregex_iterator(out.begin(), out.end(), error_line), std::sregex_iterator()));
}

} // namespace

std::size_t sweep_failures(const SweepCall &c) {
    using karst::fault::Kind;
    const int fds = open_fd_count();
    size_t points = 0;
    for (size_t nth = 1; nth < 10000; ++nth) {
        karst::fault::arm(Kind::any, nth);
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = c.call(); });
        const bool fired = karst::fault::fired();
        karst::fault::disarm();
        if (!fired) {
            EXPECT_EQ(rc, 0) << c.name << ": completes once no acquisition fails";
            break;
        }
        ++points;
        EXPECT_EQ(rc, c.failure_result) << c.name << " failing acquisition " << nth;
        EXPECT_LE(error_lines(out), 1u) << c.name << " failing acquisition " << nth << ":\n" << out;
        karst_emu_stats stats{};
        karst_emu_get_stats(&stats);
        EXPECT_EQ(stats.registered, 0u) << c.name << " failing acquisition " << nth;
        EXPECT_EQ(stats.sessions, 0u) << c.name << " failing acquisition " << nth;
        EXPECT_EQ(stats.contexts, 0u) << c.name << " failing acquisition " << nth;
        EXPECT_EQ(open_fd_count(), fds) << c.name << " failing acquisition " << nth;
    }
    int rc = -1;
    capture_stdout([&] { rc = c.call(); });
    EXPECT_EQ(rc, 0) << c.name << ": a normal call after the sweep";
    return points;
}

} // namespace karst::test
