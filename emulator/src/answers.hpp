// SPDX-License-Identifier: Apache-2.0
// Answers set by tests in place of the application's model of a command: every invoke of the
// command gets the given bytes in one output parameter, so that tests and fuzzers can feed the
// library any answer the secure world could give.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace karst::emu {

struct Answer {
    uint32_t param;
    std::vector<uint8_t> data;
};

// The answer set for command, if any.
std::optional<Answer> answer_for(uint32_t command);
void clear_answers();

} // namespace karst::emu
