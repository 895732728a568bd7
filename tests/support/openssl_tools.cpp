// SPDX-License-Identifier: Apache-2.0
#include "support/openssl_tools.hpp"

#include "core/shell.hpp"
#include "support/test_env.hpp"

#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>

namespace karst::test {
namespace {

using karst::shell::quote;

// openssl req making an EC P-256 key in base.key for the subject name.
std::string new_key_request(const std::string &base, const std::string &name) {
    return "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " +
           quote(base + ".key") + " -subj " + quote("/CN=" + name) + " ";
}

std::string g_certificate_dir;

} // namespace

int sh(const std::string &command_line) {
    const int status = std::system(command_line.c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool make_ca(const std::string &dir, const std::string &name) {
    const std::string base = dir + "/" + name;
    return sh(new_key_request(base, name) + "-x509 -days 30 -outform DER -out " +
              quote(base + ".der") + " 2>/dev/null") == 0;
}

bool make_issued(const std::string &dir, const std::string &name, const std::string &ca) {
    const std::string base = dir + "/" + name;
    const std::string ca_base = dir + "/" + ca;
    return sh(new_key_request(base, name) + "-out " + quote(base + ".csr") +
              " 2>/dev/null && openssl x509 -req -in " + quote(base + ".csr") + " -CA " +
              quote(ca_base + ".der") + " -CAform DER -CAkey " + quote(ca_base + ".key") +
              " -CAcreateserial -days 30 -outform DER -out " + quote(base + ".der") +
              " 2>/dev/null") == 0;
}

bool public_key_of_csr(const std::string &csr_path, const std::string &pem_path) {
    return sh("openssl req -inform DER -in " + quote(csr_path) + " -verify -pubkey -noout -out " +
              quote(pem_path) + " 2>/dev/null") == 0;
}

const CertificateSet &certificates() {
    static const CertificateSet set = [] {
        char templ[] = "/tmp/karst-certs-XXXXXX";
        CertificateSet s;
        if (mkdtemp(templ) == nullptr) {
            return s;
        }
        g_certificate_dir = templ;
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(g_certificate_dir, ec);
        });
        const std::string dir = templ;
        if (make_ca(dir, "ca") && make_issued(dir, "leaf", "ca") && make_ca(dir, "stranger")) {
            s.ca_path = dir + "/ca.der";
            s.leaf_path = dir + "/leaf.der";
            s.stranger_path = dir + "/stranger.der";
            for (auto [path, bytes] : {std::pair{&s.ca_path, &s.ca},
                                       {&s.leaf_path, &s.leaf},
                                       {&s.stranger_path, &s.stranger}}) {
                const std::string data = read_file(*path);
                bytes->assign(data.begin(), data.end());
            }
        }
        return s;
    }();
    return set;
}

} // namespace karst::test
