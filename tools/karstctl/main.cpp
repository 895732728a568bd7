// SPDX-License-Identifier: Apache-2.0
// karstctl: the board's secure-world services from the command line, one sub-command per call
// of the library.
#include "common.hpp"
#include "families.hpp"

#include <cstdio>
#include <exception>

#ifndef KARSTCTL_VERSION
#define KARSTCTL_VERSION "0"
#endif

namespace {

using karstctl::Status;

// The commands of a group, by name, separated by ", ".
std::string commands_of(const CLI::App &group) {
    std::string names;
    for (const CLI::App *command : group.get_subcommands([](const CLI::App *) { return true; })) {
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    return names;
}

// Follows the command words of args through the groups (which take flags only) and names the
// first word that is not a command of its group, or a group left without a command, with the
// group's commands.
void check_command_words(const CLI::App &app, const std::vector<std::string> &args) {
    const CLI::App *group = &app;
    for (const std::string &word : args) {
        if (word == "--") {
            return;
        }
        if (word.empty() || word[0] == '-') {
            continue;
        }
        const std::vector<const CLI::App *> commands =
            group->get_subcommands([&word](const CLI::App *c) { return c->check_name(word); });
        if (!commands.empty()) {
            group = commands.front();
            if (group->get_subcommands([](const CLI::App *) { return true; }).empty()) {
                return; // a command's own operands follow
            }
            continue;
        }
        if (group == &app) {
            karstctl::fail(Status::bad_input,
                           "unknown command '" + word + "'; commands: " + commands_of(app));
        }
        karstctl::fail(Status::bad_input, "unknown " + group->get_name() + " command '" + word +
                                              "'; one of: " + commands_of(*group));
    }
    for (const std::string &word : args) {
        if (word == "-h" || word == "--help" || word == "--version") {
            return;
        }
    }
    karstctl::fail(Status::bad_input,
                   group == &app
                       ? "a command is needed; commands: " + commands_of(app)
                       : group->get_name() + " needs a command; one of: " + commands_of(*group));
}

void add_commands(CLI::App &app) {
    karstctl::add_env(app);
    karstctl::add_inventory(app);
    karstctl::add_memreg(app);
    karstctl::add_image(app);
    karstctl::add_board(app);
    karstctl::add_attest(app);
    karstctl::add_cert(app);
    karstctl::add_signing(app);
    karstctl::add_otp(app);
}

int run(int argc, char **argv) {
    CLI::App app{"karstctl: the board's secure-world services (U-Boot environment, inventory,\n"
                 "firmware images, attestation, certificates, signatures, OTP) from the command\n"
                 "line. Results go to standard output, alone; the library's own messages and\n"
                 "karstctl's errors go to standard error.",
                 "karstctl"};
    app.set_version_flag("--version", "karstctl " KARSTCTL_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 success; 1 the call failed (or answered no); 2 a usage error, or a\n"
               "file named on the command line could not be read or written; 3 stopped waiting\n"
               "for an update that goes on (Ctrl-C during image update).\n"
               "\n"
               "Examples:\n"
               "  karstctl env get bootcmd\n"
               "  karstctl inventory set BMC_VERSION 2.10.1\n"
               "  karstctl cert get root -o root.der\n"
               "  karstctl <command> --help     (every command has its own help and examples)");
    add_commands(app);
    try {
        check_command_words(app, std::vector<std::string>(argv + 1, argv + argc));
        app.parse(argc, argv);
    } catch (const karstctl::Exit &e) {
        std::fflush(stdout);
        return e.status();
    } catch (const CLI::Error &e) {
        std::fflush(stdout);
        if (e.get_exit_code() == 0) {
            return app.exit(e); // help or version
        }
        std::fprintf(stderr, "karstctl: %s\nRun with --help for more information.\n", e.what());
        return Status::bad_input;
    }
    std::fflush(stdout);
    return Status::ok;
}

} // namespace

int main(int argc, char **argv) try { return run(argc, argv); } catch (...) {
    // Not one of karstctl's own failures (those end in run): the program ends as on any
    // exception that nothing catches.
    std::terminate();
}
