// SPDX-License-Identifier: Apache-2.0
// Calls as text, so that one comparison covers a call's result and everything it printed, and
// what reached the secure world as text: for the tests of the data blocks, the board's stores
// and registers, and OTP.
#pragma once

#include "support/test_env.hpp"

#include <numeric>
#include <regex>
#include <sstream>
#include <string>

namespace karst::test {

// "<result> <output>" of a call.
inline std::string run(const std::function<long()> &call) {
    long rc = 0;
    std::string out = capture_stdout([&] { rc = call(); });
    return std::to_string(rc) + " " + out;
}

// The sum of results and the concatenation of texts in the order given: a braced list is
// evaluated in order, a chain of "+" is not.
inline long sum(std::initializer_list<long> results) {
    return std::accumulate(results.begin(), results.end(), 0L);
}
inline std::string cat(std::initializer_list<std::string> parts) {
    return std::accumulate(parts.begin(), parts.end(), std::string());
}

// Patterns: text as it stands; an error line of func, "[E:func:<line>] message\n" (message a
// pattern); a failed invoke's line; the line of an exported call refusing a null argument.
inline std::string literal(const std::string &text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}
inline std::string err(const std::string &func, const std::string &message) {
    return R"(\[E:)" + func + R"(:\d+\] )" + message + "\n";
}
inline std::string invoke_failed(const std::string &func, const std::string &code) {
    return err(func, "TEEC_InvokeCommand failed with code " + code + " origin 0x4");
}
inline std::string invalid(const std::string &name, const std::string &data = "") {
    return "Invalid arguments: name = " + name + (data.empty() ? "" : ", data = " + data) + "\n";
}

// What reached the secure world since the last look (of command only, if given), one text per
// invoke: "command types; parameter; ...", a value as "a,b", memory as "size flags 'input'" with
// the input up to its last non-zero byte.
inline std::vector<std::string> sent(uint32_t only = UINT32_MAX) {
    std::vector<std::string> out;
    for (const karst_emu_invoke_record &r : journal()) {
        std::ostringstream s;
        s << r.command << ' ' << std::hex << r.param_types << std::dec;
        for (const karst_emu_param &p : r.params) {
            size_t n = p.input_kept;
            while (n > 0 && p.input[n - 1] == 0) {
                --n;
            }
            if (p.type >= TEEC_VALUE_INPUT && p.type <= TEEC_VALUE_INOUT) {
                s << "; " << p.a << ',' << p.b;
            } else if (p.type != TEEC_NONE) {
                s << "; " << p.size << ' ' << p.flags << " '" << std::string(p.input, p.input + n)
                  << "'";
            }
        }
        if (only == UINT32_MAX || r.command == only) {
            out.push_back(s.str());
        }
    }
    karst_emu_journal_clear();
    return out;
}
using Sent = std::vector<std::string>;

} // namespace karst::test
