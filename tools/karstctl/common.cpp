// SPDX-License-Identifier: Apache-2.0
#include "common.hpp"

#include "tee_failure.hpp"

#include "core/file_bytes.hpp"
#include "core/run_root.hpp"
#include "karst.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace karstctl {

const char *const EXIT_STATUS_HELP =
    "Exit status: 0 success; 1 the call failed (or answered no); 2 a usage error, or a file\n"
    "named on the command line could not be read or written.";

namespace {

// "-": standard output.
bool is_stdout(const std::string &path) {
    return path == "-";
}

// Why path cannot be written, or nothing: an existing file must be writable and not a
// directory, a new one must have a writable directory.
std::string unwritable(const std::string &path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            return "cannot write " + path + ": " + std::strerror(EISDIR);
        }
        return ::access(path.c_str(), W_OK) == 0
                   ? ""
                   : "cannot write " + path + ": " + std::strerror(errno);
    }
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return ::access(dir.c_str(), W_OK | X_OK) == 0
               ? ""
               : "cannot write " + path + ": " + std::strerror(errno);
}

} // namespace

void fail(Status status, const std::string &message) {
    std::fflush(stdout);
    std::fprintf(stderr, "karstctl: %s\n", message.c_str());
    throw Exit(status);
}

void check_call(int result, const char *call) {
    if (result == 0) {
        return;
    }
    // The TEE failure the call met; else a TEE code the call returned, else its -1.
    std::string reason = tee_reason();
    if (reason.empty()) {
        reason = result == -1 ? " (-1)" : ": " + describe_code(static_cast<uint32_t>(result));
    }
    fail(Status::call_failed, std::string(call) + " failed" + reason);
}

std::string tee_reason() {
    const std::optional<TeeFailure> failure = last_tee_failure();
    return failure ? ": " + describe(*failure) : std::string();
}

LibraryCall::LibraryCall(Lines lines) {
    forget_tee_failure();
    std::fflush(stdout);
    kept_ = lines == Lines::kept ? std::tmpfile() : nullptr;
    const int target = kept_ != nullptr ? ::fileno(kept_) : STDERR_FILENO;
    saved_ = ::dup(STDOUT_FILENO);
    if (saved_ < 0 || (lines == Lines::kept && kept_ == nullptr) ||
        ::dup2(target, STDOUT_FILENO) < 0) {
        finish();
        fail(Status::call_failed,
             std::string("cannot set standard output aside: ") + std::strerror(errno));
    }
}

LibraryCall::~LibraryCall() {
    finish();
}

std::string LibraryCall::finish() {
    std::fflush(stdout);
    if (saved_ >= 0) {
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
        saved_ = -1;
    }
    std::string lines;
    if (kept_ != nullptr) {
        std::rewind(kept_);
        char chunk[4096];
        for (size_t n = 0; (n = std::fread(chunk, 1, sizeof chunk, kept_)) > 0;) {
            lines.append(chunk, n);
        }
        std::fclose(kept_);
        kept_ = nullptr;
        std::fwrite(lines.data(), 1, lines.size(), stderr);
    }
    return lines;
}

void check_session(const karst::tee::SessionScope &session) {
    if (!session.open()) {
        std::string message = "cannot open the TEE session: " + describe_code(session.result());
        if (const std::optional<TeeFailure> failure = last_tee_failure()) {
            message += " (" + describe(*failure) + ")";
        }
        fail(Status::call_failed, message);
    }
}

std::vector<uint8_t> read_input(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fail(Status::bad_input, "cannot read " + path + ": " + std::strerror(errno));
    }
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    if (in.bad()) {
        fail(Status::bad_input, "cannot read " + path);
    }
    return data;
}

void write_output(const std::string &path, const void *data, size_t size) {
    std::FILE *out = is_stdout(path) ? stdout : std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        fail(Status::bad_input, "cannot write " + path + ": " + std::strerror(errno));
    }
    const bool written = std::fwrite(data, 1, size, out) == size;
    if ((out == stdout ? std::fflush(out) : std::fclose(out)) != 0 || !written) {
        fail(Status::bad_input, "cannot write " + path);
    }
}

void write_secret(const std::string &path, const void *data, size_t size) {
    if (is_stdout(path)) {
        write_output(path, data, size);
    } else if (size > UINT32_MAX ||
               karst::write_secret_file(path.c_str(), data, static_cast<uint32_t>(size)) != 0) {
        fail(Status::bad_input, "cannot write " + path);
    }
}

void copy_board_file(const std::string &board_path, const std::string &output) {
    karst::FileBytes bytes;
    if (bytes.read_board(board_path, KARST_SITE) != karst::board::Found::ok) {
        fail(Status::call_failed, "cannot read " + karst::platform_path(board_path));
    }
    write_output(output, bytes.data(), bytes.size());
}

void print_board_path(const std::string &board_path, const std::string &output) {
    if (!is_stdout(output)) {
        std::printf("%s\n", karst::platform_path(board_path).c_str());
    }
    if (!output.empty()) {
        copy_board_file(board_path, output);
    }
}

std::string bounded_text(const char *buffer, size_t room) {
    return std::string(buffer, strnlen(buffer, room));
}

void emit(const std::string &path, const std::string &text) {
    if (path.empty()) {
        std::printf("%s\n", text.c_str());
    } else {
        write_output(path, text.data(), text.size());
    }
}

LibraryFile::LibraryFile(const std::string &output) : path_(output) {
    if (!is_stdout(output)) {
        return;
    }
    const char *dir = std::getenv("TMPDIR");
    std::string name =
        std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/karstctl-XXXXXX";
    const int fd = ::mkstemp(name.data());
    if (fd < 0) {
        fail(Status::bad_input,
             "cannot make a temporary file: " + std::string(std::strerror(errno)));
    }
    ::close(fd);
    path_ = name;
    temporary_ = true;
}

LibraryFile::~LibraryFile() {
    if (temporary_) {
        ::unlink(path_.c_str());
    }
}

void LibraryFile::deliver() const {
    if (temporary_) {
        const std::vector<uint8_t> bytes = read_input(path_);
        write_output("-", bytes.data(), bytes.size());
    }
}

CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples) {
    CLI::App *command = parent.add_subcommand(name, description);
    command->footer((examples.empty() ? "" : "Examples:\n" + examples + "\n") + EXIT_STATUS_HELP);
    return command;
}

CLI::App *add_group(CLI::App &parent, const std::string &name, const std::string &description,
                    const std::string &examples) {
    CLI::App *group = add_command(parent, name, description, examples);
    group->require_subcommand(1);
    return group;
}

CLI::Option *add_input_file(CLI::App &command, const std::string &name, std::string &path,
                            const std::string &description) {
    return command.add_option(name, path, description)->required()->check(CLI::ExistingFile);
}

CLI::Option *add_output(CLI::App &command, std::string &path, const std::string &description) {
    CLI::Validator writable(
        [](std::string &text) { return is_stdout(text) ? std::string() : unwritable(text); }, "",
        "writable");
    return command.add_option("-o,--output", path, description + " (- for standard output)")
        ->check(writable);
}

CLI::Option *add_json(CLI::App &command, bool &json) {
    return command.add_flag("--json", json, "Print the result as one JSON object");
}

} // namespace karstctl
