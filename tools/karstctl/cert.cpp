// cert get: the device's certificates.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <map>
#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t CERT_ROOM = 65536;

struct CertOptions {
    int32_t index = 0;
    std::string output;
};

// Certificates by position in the chain (root first) as well as by the library's index.
const std::map<std::string, int32_t> CERT_NAMES = {
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
        "chain, or object (5), the secure world's single certificate object",
        "  karstctl cert get root -o root.der\n"
        "  karstctl cert get 0 -o device.der && openssl x509 -inform DER -in device.der -noout "
        "-subject\n");
    get->add_option("index", opts->index, "root, second, third, device, object, or 4, 2, 1, 0, 5")
        ->required()
        ->type_name("CERT")
        ->transform(CLI::CheckedTransformer(CERT_NAMES, CLI::ignore_case).description(""));
    get->add_option("-o,--output", opts->output, "File to write the certificate to")->required();
    get->callback([opts] {
        auto buffer = std::make_unique<uint8_t[]>(CERT_ROOM);
        uint32_t size = CERT_ROOM;
        check_call(pta20_get_cert(opts->index, buffer.get(), &size), "pta20_get_cert");
        write_output(opts->output, buffer.get(), size);
    });
    add_cert_change(*cert);
}

} // namespace karstctl
