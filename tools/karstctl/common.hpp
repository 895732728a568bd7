// What every command family of karstctl shares: how a command fails, how outputs reach the
// files the user names, and the board paths the library leaves its results in.
#pragma once

#include "core/board_paths.hpp"
#include "core/session_scope.hpp"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace karstctl {

// Exit statuses of a command that parsed (CLI11 keeps 100 to 127 for usage errors).
enum Status : int {
    ok = 0,
    call_failed = 1, // the library call reported a failure (its messages are on stdout)
    file_failed = 2, // a file named on the command line could not be read or written
    interrupted = 3, // stopped waiting (Ctrl-C); what the secure world runs goes on
};

// Prints "karstctl: <message>" on standard error and ends the command with status.
[[noreturn]] void fail(Status status, const std::string &message);
// Ends the command with Status::call_failed when result is not 0, naming the call on standard
// error.
void check_call(int result, const char *call);

// Whole files named by the user.
std::vector<uint8_t> read_input(const std::string &path);
void write_output(const std::string &path, const void *data, size_t size);
// The same for key material: a fresh file of mode 0600 (what was at the path is removed first).
void write_secret(const std::string &path, const void *data, size_t size);
// Copies a file the library left at one of the board's paths (checked as the library checks
// its own files) to the file the user named.
void copy_board_file(const std::string &board_path, const std::string &output);
// Prints where the library left a file (the board path as this build uses it) and copies it to
// output when output is not empty.
void print_board_path(const std::string &board_path, const std::string &output);
// Writes data to path when path is not empty, else prints it as text with a line end.
void emit(const std::string &path, const std::string &text);
// The text in a buffer of room bytes that the library filled: never read past the buffer.
std::string bounded_text(const char *buffer, size_t room);

// Ends the command with Status::call_failed, naming what the open returned, when session is
// not open.
void check_session(const karst::tee::SessionScope &session);
// Runs call, for calls that need the TEE session, with the session open; it is closed when call
// returns or throws.
template <typename Call> auto in_session(const Call &call) {
    const karst::tee::SessionScope session;
    check_session(session);
    return call();
}

// A sub-command with its description and its examples (shown at the end of its --help).
CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples);

// A required positional that names an existing file.
CLI::Option *add_input_file(CLI::App &command, const std::string &name, std::string &path,
                            const std::string &description);

// A command whose sub-commands do the work: one of them is required.
CLI::App *add_group(CLI::App &parent, const std::string &name, const std::string &description,
                    const std::string &examples);

// Unsigned numbers in decimal or 0x hexadecimal, for options and positionals.
uint32_t parse_number(const std::string &text, const char *what);

} // namespace karstctl
