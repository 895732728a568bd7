// SPDX-License-Identifier: Apache-2.0
// The failure sweep: fail acquisition 1, 2, 3, ... of a call in turn until the call completes
// without reaching the injection, and check each failing run.
#pragma once

#include "support/sweep_session.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace karst::test {

struct SweepCall {
    std::string name;
    std::function<int()> call;               // returns the call's result
    std::vector<int> failure_results = {-1}; // what the call may return when an acquisition fails
    int success_result = 0;
    // Puts in place what the call needs, before every run (files the call consumes, ...).
    std::function<void()> prepare = [] {};
    // Error lines the call prints by design even when nothing fails (they are not counted).
    std::string expected_noise = {};

    // For the rows of a table: SWEEP(routine, arguments...).failing({-1, 0}).
    SweepCall failing(std::vector<int> r) { return failure_results = std::move(r), *this; }
    SweepCall succeeding(int result) { return success_result = result, *this; }
    SweepCall prepared(std::function<void()> fn) { return prepare = std::move(fn), *this; }
    SweepCall noise(std::string line) { return expected_noise = std::move(line), *this; }
};

// A row of a table: the call under its name.
inline SweepCall sweep_call(std::string name, std::function<int()> call) {
    return SweepCall{.name = std::move(name), .call = std::move(call)};
}
// A row that calls routine with the arguments (evaluated at each call), named for the routine;
// SWEEP_IN_SESSION calls it inside a session of its own.
#define SWEEP(routine, ...) karst::test::sweep_call(#routine, [&] { return routine(__VA_ARGS__); })
#define SWEEP_IN_SESSION(routine, ...)                                                             \
    karst::test::sweep_call(                                                                       \
        #routine, [&] { return karst::test::in_session([&] { return routine(__VA_ARGS__); }); })

// Runs the sweep with gtest expectations. For every failing run: the call returns a failure
// result; it prints at most one error line, and that line names the failed acquisition; it
// leaves no heap block (LeakSanitizer, in sanitizer builds), registered memory, session,
// context, descriptor, mapping or record lock behind; and a following normal call succeeds.
// Returns the number of failure points.
std::size_t sweep_failures(const SweepCall &c);

// Sweeps every call of a table; each must reach at least one acquisition.
void sweep_each(const std::vector<SweepCall> &calls);

// Failure points swept so far in this process.
std::size_t swept_points();

} // namespace karst::test
