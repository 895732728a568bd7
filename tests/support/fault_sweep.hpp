// The failure sweep: fail acquisition 1, 2, 3, ... of a call in turn until the call completes
// without reaching the injection, and check each failing run.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace karst::test {

struct SweepCall {
    std::string name;
    std::function<int()> call; // returns the call's result
    int failure_result = -1;   // what the call returns when an acquisition fails
};

// Runs the sweep with gtest expectations: for every failing run, the call returns its failure
// result, prints at most one error line, and leaves no registered memory, session, context or
// descriptor behind; afterwards the call succeeds normally. Returns the number of failure points.
std::size_t sweep_failures(const SweepCall &c);

} // namespace karst::test
