// SPDX-License-Identifier: Apache-2.0
// sign, verify, validate: signatures with the device key and the security validation.
#include "common.hpp"
#include "families.hpp"
#include "operands.hpp"

#include "karst.h"

#include <cstdio>
#include <memory>

namespace karstctl {

namespace {

// The library names the signature "<path>.sig", cut to 63 characters.
constexpr size_t LONGEST_SIGNED_PATH = 63 - 4;
// The checks of the security validation: 0x1 device identity, 0x2 remote attestation.
constexpr uint32_t ALL_CHECKS = 0x3;

struct SigningOptions {
    std::string data;
    std::string signature;
    std::string output;
    uint32_t option = 0;
    uint32_t mask = 0;
};

void add_sign(CLI::App &app, const std::shared_ptr<SigningOptions> &opts) {
    CLI::App *sign = add_command(app, "sign",
                                 "Sign a file with the device key (ECDSA P-256, SHA-256, DER); "
                                 "the signature goes to FILE.sig",
                                 "  karstctl sign report.txt\n"
                                 "  karstctl sign report.txt -o report.sig\n");
    add_input_file(*sign, "file", opts->data, "File to sign (path of at most 59 characters)");
    add_output(*sign, opts->output, "Also copy the signature to this file (-: only its bytes)");
    add_number(*sign, "--option", opts->option, "Option word passed to the secure world", 0,
               UINT32_MAX);
    sign->callback([opts] {
        if (opts->data.size() > LONGEST_SIGNED_PATH) {
            fail(Status::bad_input,
                 "the path of the file to sign has more than 59 characters: " + opts->data);
        }
        run_call("pta_invoke_att_sign", [&] {
            return in_session([&] {
                return pta_invoke_att_sign(PTA_DALU_CMD_ATT_SIGN, opts->option, opts->data.c_str());
            });
        });
        const std::string signature = opts->data + ".sig";
        if (opts->output != "-") {
            std::printf("%s\n", signature.c_str());
        }
        if (!opts->output.empty()) {
            const std::vector<uint8_t> bytes = read_input(signature);
            write_output(opts->output, bytes.data(), bytes.size());
        }
    });
}

void add_verify(CLI::App &app, const std::shared_ptr<SigningOptions> &opts) {
    CLI::App *verify = add_command(app, "verify",
                                   "Check a signature of a file by the device key: prints "
                                   "valid (status 0) or invalid (status 1)",
                                   "  karstctl verify report.txt report.txt.sig\n");
    add_input_file(*verify, "file", opts->data, "Signed file");
    add_input_file(*verify, "signature", opts->signature, "Signature (DER)");
    verify->callback([opts] {
        if (opts->data.find(':') != std::string::npos) {
            fail(Status::bad_input, "the signed file's path must not contain ':'");
        }
        std::string args = opts->data + ":" + opts->signature;
        const int result = library([&] {
            return in_session(
                [&] { return pta_invoke_att_verify(PTA_DALU_CMD_ATT_VERIFY, args.data()); });
        });
        std::printf("%s\n", result == 0 ? "valid" : "invalid");
        check_call(result, "pta_invoke_att_verify");
    });
}

void add_validate(CLI::App &app, const std::shared_ptr<SigningOptions> &opts) {
    CLI::App *validate = add_command(app, "validate",
                                     "Attestation security validation: MASK 0x1 device identity, "
                                     "0x2 remote attestation",
                                     "  karstctl validate 0x1\n"
                                     "  karstctl validate 3\n");
    add_number(*validate, "mask", opts->mask, "Checks to run", 1, ALL_CHECKS)->required();
    validate->callback([opts] {
        const int result = library([&] { return pta20_att_security_validate(opts->mask); });
        if (result == PTA20_ATT_VALIDATE_NOT_FOUND) {
            fail(Status::call_failed, "validation: no such check" + tee_reason());
        }
        if (result == PTA20_ATT_VALIDATE_REJECTED) {
            fail(Status::call_failed, "validation: rejected by the secure world" + tee_reason());
        }
        check_call(result, "pta20_att_security_validate");
        std::printf("valid\n");
    });
}

} // namespace

void add_signing(CLI::App &app) {
    auto opts = std::make_shared<SigningOptions>();
    add_sign(app, opts);
    add_verify(app, opts);
    add_validate(app, opts);
}

} // namespace karstctl
