#include "shell.hpp"

#include <cstdio>
#include <cstdlib>

namespace karst::shell {

namespace {

// Characters that are never special to the shell anywhere in an argument word.
bool plain_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == ':' || c == '@';
}

} // namespace

std::string quote(std::string_view text) {
    // A word of plain characters stands as it is, so that commands read as on the board.
    bool plain = !text.empty();
    for (char c : text) {
        plain = plain && plain_char(c);
    }
    if (plain) {
        return std::string(text);
    }
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
