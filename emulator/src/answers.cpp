// SPDX-License-Identifier: Apache-2.0
#include "answers.hpp"

#include "karst_emu.h"

#include <map>
#include <mutex>

namespace karst::emu {
namespace {

struct Answers {
    std::mutex mutex;
    std::map<uint32_t, Answer> by_command;
};

Answers &answers() {
    static Answers a;
    return a;
}

} // namespace

std::optional<Answer> answer_for(uint32_t command) {
    std::lock_guard lock(answers().mutex);
    const auto it = answers().by_command.find(command);
    if (it == answers().by_command.end()) {
        return std::nullopt;
    }
    return it->second;
}

void clear_answers() {
    std::lock_guard lock(answers().mutex);
    answers().by_command.clear();
}

} // namespace karst::emu

extern "C" void karst_emu_answer(uint32_t command, uint32_t param, const void *data, size_t size) {
    using namespace karst::emu;
    std::lock_guard lock(answers().mutex);
    if (data == nullptr || param > 3) {
        answers().by_command.erase(command);
        return;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    answers().by_command[command] = Answer{param, std::vector<uint8_t>(bytes, bytes + size)};
}
