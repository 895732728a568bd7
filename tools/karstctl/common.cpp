#include "common.hpp"

#include "core/file_bytes.hpp"
#include "core/run_root.hpp"
#include "karst.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace karstctl {

void fail(Status status, const std::string &message) {
    std::fflush(stdout);
    std::fprintf(stderr, "karstctl: %s\n", message.c_str());
    throw CLI::RuntimeError(status);
}

void check_call(int result, const char *call) {
    if (result != 0) {
        char code[32];
        std::snprintf(code, sizeof code, "%d (0x%08x)", result, static_cast<unsigned>(result));
        fail(Status::call_failed, std::string(call) + " failed: " + code);
    }
}

std::vector<uint8_t> read_input(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fail(Status::file_failed, "cannot read " + path + ": " + std::strerror(errno));
    }
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    if (in.bad()) {
        fail(Status::file_failed, "cannot read " + path);
    }
    return data;
}

void write_output(const std::string &path, const void *data, size_t size) {
    std::FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        fail(Status::file_failed, "cannot write " + path + ": " + std::strerror(errno));
    }
    const bool written = std::fwrite(data, 1, size, out) == size;
    if (std::fclose(out) != 0 || !written) {
        fail(Status::file_failed, "cannot write " + path);
    }
}

void write_secret(const std::string &path, const void *data, size_t size) {
    if (size > UINT32_MAX ||
        karst::write_secret_file(path.c_str(), data, static_cast<uint32_t>(size)) != 0) {
        fail(Status::file_failed, "cannot write " + path);
    }
}

void copy_board_file(const std::string &board_path, const std::string &output) {
    karst::FileBytes bytes;
    if (bytes.read_board(board_path, KARST_SITE) != karst::board::Found::ok) {
        fail(Status::file_failed, "cannot read " + karst::platform_path(board_path));
    }
    write_output(output, bytes.data(), bytes.size());
}

void print_board_path(const std::string &board_path, const std::string &output) {
    std::printf("%s\n", karst::platform_path(board_path).c_str());
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

void check_session(const karst::tee::SessionScope &session) {
    if (!session.open()) {
        char code[16];
        std::snprintf(code, sizeof code, "0x%08x", static_cast<unsigned>(session.result()));
        fail(Status::call_failed, std::string("cannot open the TEE session: ") + code);
    }
}

CLI::App *add_command(CLI::App &parent, const std::string &name, const std::string &description,
                      const std::string &examples) {
    CLI::App *command = parent.add_subcommand(name, description);
    if (!examples.empty()) {
        command->footer("Examples:\n" + examples);
    }
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

uint32_t parse_number(const std::string &text, const char *what) {
    errno = 0;
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > UINT32_MAX) {
        throw CLI::ValidationError(what, "not a number: " + text);
    }
    return static_cast<uint32_t>(value);
}

} // namespace karstctl
