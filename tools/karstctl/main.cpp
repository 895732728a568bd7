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

int run(int argc, char **argv) {
    CLI::App app{"karstctl: the board's secure-world services (U-Boot environment, inventory,\n"
                 "firmware images, attestation, certificates, signatures, OTP) from the command\n"
                 "line. The library's own messages appear on standard output; karstctl's errors\n"
                 "on standard error.",
                 "karstctl"};
    app.set_version_flag("--version", "karstctl " KARSTCTL_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 success; 1 the call failed; 2 a named file could not be read or\n"
               "written; 3 stopped waiting (the secure world carries on); 100-127 usage error.\n"
               "\n"
               "Examples:\n"
               "  karstctl env get bootcmd\n"
               "  karstctl inventory set BMC_VERSION 2.10.1\n"
               "  karstctl cert get 4 -o root.der\n"
               "  karstctl <command> --help     (every command has its own help and examples)");

    karstctl::add_env(app);
    karstctl::add_inventory(app);
    karstctl::add_memreg(app);
    karstctl::add_image(app);
    karstctl::add_board(app);
    karstctl::add_attest(app);
    karstctl::add_cert(app);
    karstctl::add_signing(app);
    karstctl::add_otp(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Error &e) {
        std::fflush(stdout);
        return app.exit(e);
    }
    std::fflush(stdout);
    return karstctl::Status::ok;
}

} // namespace

int main(int argc, char **argv) try { return run(argc, argv); } catch (...) {
    // Not one of karstctl's own failures (those end as CLI11's errors, in run): the program ends
    // as on any exception that nothing catches.
    std::terminate();
}
