#include "shell.hpp"

#include <cstdio>
#include <cstdlib>

namespace karst::shell {

std::string quote(std::string_view text) {
    std::string word;
    word.reserve(text.size() + 2);
    word.push_back('\'');
    for (char c : text) {
        if (c == '\'') {
            word.append("'\\''");
        } else {
            word.push_back(c);
        }
    }
    word.push_back('\'');
    return word;
}

int run(const std::string &command_line) {
    // Whatever the library printed so far comes before the command's own output.
    std::fflush(stdout);
    return std::system(command_line.c_str());
}

} // namespace karst::shell
