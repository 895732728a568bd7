// SPDX-License-Identifier: Apache-2.0
// cert replace|replace-ra|csr|auth: certificates sent to the secure world.
#include "common.hpp"
#include "families.hpp"
#include "operands.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t LAST_INDEX = 5;

struct CertChangeOptions {
    uint32_t index = 1;
    uint32_t option = 0;
    std::string file;
    std::string second;
    std::string subject;
    std::string output;
};

// The replacement through the dispatcher: word 0 the index, word 1 the option, word 4 the file.
int replace(uint32_t command, const CertChangeOptions &opts) {
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, opts.index, opts.option, 0, reinterpret_cast<uintptr_t>(opts.file.c_str()), 0,
               0);
    return in_session([&] { return pta_invoke_cmd(command, block); });
}

// What both replacements take: the certificate's index, the new certificate, the option word.
void add_replacement_options(CLI::App &command, CertChangeOptions &opts) {
    add_number(command, "index", opts.index, "Certificate index", 1, LAST_INDEX)->required();
    add_input_file(command, "file", opts.file, "The new certificate");
    add_number(command, "--option", opts.option, "Option word passed to the secure world", 0,
               UINT32_MAX);
}

void add_replace(CLI::App &cert, const std::shared_ptr<CertChangeOptions> &opts) {
    CLI::App *replace_cmd = add_command(cert, "replace",
                                        "Replace certificate INDEX (1 to 5) with a certificate "
                                        "file",
                                        "  karstctl cert replace 1 device.der\n");
    add_replacement_options(*replace_cmd, *opts);
    replace_cmd->callback([opts] {
        run_call("pta20_crt_replace",
                 [&] { return pta20_crt_replace(opts->index, opts->file.c_str(), opts->option); });
    });

    CLI::App *ra = add_command(cert, "replace-ra",
                               "Replace the RA certificate; the RA data the secure world issues "
                               "is archived as /nv1/ra_data.tgz",
                               "  karstctl cert replace-ra 1 ra.der\n"
                               "  karstctl attest ra-refresh\n");
    add_replacement_options(*ra, *opts);
    ra->callback([opts] {
        run_call("pta_invoke_replace_ra_crt",
                 [&] { return replace(PTA_DALU_CMD_REPLACE_RA_CRT, *opts); });
    });
}

void add_csr(CLI::App &cert, const std::shared_ptr<CertChangeOptions> &opts) {
    CLI::App *csr = add_command(cert, "csr",
                                "Have the secure world make a certificate signing request (DER) "
                                "for the device key",
                                "  karstctl cert csr 'CN=bmc-01,O=Example,C=US' -o bmc.csr\n"
                                "  openssl req -inform DER -in bmc.csr -noout -verify -subject\n");
    csr->add_option("subject", opts->subject, "Subject: NAME=value attributes separated by ','")
        ->required();
    add_output(*csr, opts->output, "File to write the request to")->required();
    csr->callback([opts] {
        const LibraryFile output(opts->output);
        run_call("pta20_gen_csr_import", [&] {
            return pta20_gen_csr_import(output.path(), opts->subject.c_str(),
                                        static_cast<uint32_t>(opts->subject.size() + 1));
        });
        output.deliver();
    });
}

void add_auth(CLI::App &cert, const std::shared_ptr<CertChangeOptions> &opts) {
    CLI::App *auth = add_command(cert, "auth",
                                 "Check that a certificate was issued by one of the certificates "
                                 "of a second file (DER, back to back)",
                                 "  karstctl cert auth device.der chain.der\n");
    add_input_file(*auth, "certificate", opts->file, "Certificate to check (DER)");
    add_input_file(*auth, "issuers", opts->second, "Candidate issuers (DER, back to back)");
    auth->callback([opts] {
        const int result = library([&] {
            return in_session([&] {
                return pta_invoke_auth_certs(PTA_DALU_CMD_AUTH_CERTS, opts->file.c_str(),
                                             opts->second.c_str());
            });
        });
        if (result == 1) {
            fail(Status::call_failed, "the secure world refused the certificate" + tee_reason());
        }
        check_call(result, "pta_invoke_auth_certs");
        std::printf("accepted\n");
    });
}

} // namespace

void add_cert_change(CLI::App &cert) {
    auto opts = std::make_shared<CertChangeOptions>();
    add_replace(cert, opts);
    add_csr(cert, opts);
    add_auth(cert, opts);
}

} // namespace karstctl
