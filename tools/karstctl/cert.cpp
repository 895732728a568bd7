// SPDX-License-Identifier: Apache-2.0
// cert get: the device's certificates.
#include "cert_summary.hpp"
#include "common.hpp"
#include "families.hpp"
#include "json.hpp"
#include "operands.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t CERT_ROOM = 65536;

struct CertOptions {
    uint32_t index = 0;
    std::string output;
    bool json = false;
};

// Certificates by position in the chain (root first) as well as by the library's index.
constexpr Named CERT_NAMES[] = {
    {"root", 4}, {"second", 2}, {"third", 1}, {"device", 0}, {"object", 5}};

} // namespace

void add_cert(CLI::App &app) {
    auto opts = std::make_shared<CertOptions>();
    CLI::App *cert =
        add_group(app, "cert", "The device's certificates: get, replace, replace-ra, csr, auth",
                  "  karstctl cert get root -o root.der\n");

    CLI::App *get = add_command(
        *cert, "get",
        "Write a certificate (DER) to a file: root (4), second (2), third (1), device (0) of the\n"
        "chain, or object (5), the secure world's single certificate object. With --json, print\n"
        "its summary: {\"cert\", \"index\", \"file\", \"size\", \"subject\"}",
        "  karstctl cert get root -o root.der --json\n"
        "  karstctl cert get 0 -o - | openssl x509 -inform DER -noout -subject\n");
    add_named(*get, "cert", opts->index, "root, second, third, device, object, or 4, 2, 1, 0, 5",
              CERT_NAMES, "a certificate")
        ->required();
    add_output(*get, opts->output, "File to write the certificate to")->required();
    add_json(*get, opts->json);
    get->callback([opts] {
        if (opts->json && opts->output == "-") {
            fail(Status::bad_input, "--json and -o - would both use standard output");
        }
        auto buffer = std::make_unique<uint8_t[]>(CERT_ROOM);
        uint32_t size = CERT_ROOM;
        run_call("pta20_get_cert", [&] {
            return pta20_get_cert(static_cast<int32_t>(opts->index), buffer.get(), &size);
        });
        write_output(opts->output, buffer.get(), size);
        if (opts->json) {
            print_json(JsonObject()
                           .text("cert", name_of(CERT_NAMES, opts->index))
                           .number("index", opts->index)
                           .text("file", opts->output)
                           .number("size", size)
                           .text("subject", der_subject({buffer.get(), size})));
        }
    });
    add_cert_change(*cert);
}

} // namespace karstctl
