// SPDX-License-Identifier: Apache-2.0
// What every command family of karstctl shares: how a command ends, how the library's messages
// are kept apart from karstctl's results, how outputs reach the files the user names, and the
// board paths the library leaves its results in.
#pragma once

#include "core/board_paths.hpp"
#include "core/session_scope.hpp"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace karstctl {

// Exit statuses, the same for every command; CLI11's own usage errors end with bad_input too.
enum Status : int {
    ok = 0,
    call_failed = 1,     // the library call failed, or answered no
    bad_input = 2,       // a usage error, or a file named on the command line that cannot be used
    stopped_waiting = 3, // Ctrl-C while waiting for an update, which goes on
};

// The exit-status line of every command's --help.
extern const char *const EXIT_STATUS_HELP;

// Ends a command with its status; its message is already on standard error.
class Exit : public std::exception {
  public:
    explicit Exit(Status status) : status_(status) {}
    Status status() const { return status_; }
    const char *what() const noexcept override { return "karstctl exit"; }

  private:
    Status status_;
};

// Prints "karstctl: <message>" on standard error and ends the command with status.
[[noreturn]] void fail(Status status, const std::string &message);
// Ends the command with Status::call_failed when result is not 0, naming the call on standard
// error with the TEE code and origin it met, by name.
void check_call(int result, const char *call);
// ": " and the TEE failure the last library call met, by name; empty when it met none.
std::string tee_reason();

// The span of one library call. The library prints its messages on standard output; while the
// call runs, standard output (descriptor 1) is standard error, so that karstctl's own results
// are all that reaches standard output. With Lines::kept the messages are gathered instead and
// copied to standard error when the call ends (finish), for the results that the library only
// prints. Starting a call forgets the TEE failure an earlier one met.
class LibraryCall {
  public:
    enum class Lines { to_stderr, kept };
    explicit LibraryCall(Lines lines = Lines::to_stderr);
    LibraryCall(const LibraryCall &) = delete;
    LibraryCall &operator=(const LibraryCall &) = delete;
    ~LibraryCall();
    // Gives standard output back; the messages gathered (Lines::kept), now on standard error.
    std::string finish();

  private:
    int saved_ = -1;
    std::FILE *kept_ = nullptr;
};

// Runs call (one or more library calls) as one LibraryCall and returns its result.
template <typename Call> auto library(const Call &call) {
    const LibraryCall scope;
    return call();
}
// The same, with the library's messages also handed back in lines.
template <typename Call> auto library_kept(std::string &lines, const Call &call) {
    LibraryCall scope(LibraryCall::Lines::kept);
    auto result = call();
    lines = scope.finish();
    return result;
}
// Runs one library call and checks its result (check_call).
template <typename Call> void run_call(const char *name, const Call &call) {
    check_call(library(call), name);
}

// Ends the command with Status::call_failed, naming what the open returned, when session is
// not open.
void check_session(const karst::tee::SessionScope &session);
// Runs call, for calls that need the TEE session, with the session open; it is closed when call
// returns or throws. Used inside library().
template <typename Call> auto in_session(const Call &call) {
    const karst::tee::SessionScope session;
    check_session(session);
    return call();
}

// Whole files named by the user; "-" as an output is standard output.
std::vector<uint8_t> read_input(const std::string &path);
void write_output(const std::string &path, const void *data, size_t size);
// The same for key material: a fresh file of mode 0600 (what was at the path is removed first).
void write_secret(const std::string &path, const void *data, size_t size);
// Copies a file the library left at one of the board's paths (checked as the library checks
// its own files) to the file the user named.
void copy_board_file(const std::string &board_path, const std::string &output);
// Prints where the library left a file (the board path as this build uses it) and copies it to
// output when output is not empty; with output "-" only the file's bytes reach standard output.
void print_board_path(const std::string &board_path, const std::string &output);
// Writes text to path when path is not empty, else prints it with a line end.
void emit(const std::string &path, const std::string &text);
// The text in a buffer of room bytes that the library filled: never read past the buffer.
std::string bounded_text(const char *buffer, size_t room);

// The file a library call writes for an output the user named: the output itself, or for "-"
// a temporary file whose bytes go to standard output (deliver) and which is removed at the end.
class LibraryFile {
  public:
    explicit LibraryFile(const std::string &output);
    LibraryFile(const LibraryFile &) = delete;
    LibraryFile &operator=(const LibraryFile &) = delete;
    ~LibraryFile();
    const char *path() const { return path_.c_str(); }
    void deliver() const;

  private:
    std::string path_;
    bool temporary_ = false;
};

// A sub-command with its description and its examples (shown at the end of its --help, with
// the exit statuses).
CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples);
// A command whose sub-commands do the work: one of them is required.
CLI::App *add_group(CLI::App &parent, const std::string &name, const std::string &description,
                    const std::string &examples);
// A required positional that names an existing file.
CLI::Option *add_input_file(CLI::App &command, const std::string &name, std::string &path,
                            const std::string &description);
// "-o,--output": a file that can be written (checked before any call), or "-".
CLI::Option *add_output(CLI::App &command, std::string &path, const std::string &description);
// "--json": the result as one JSON object.
CLI::Option *add_json(CLI::App &command, bool &json);

} // namespace karstctl
