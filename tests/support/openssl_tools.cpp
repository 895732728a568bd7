#include "support/openssl_tools.hpp"

#include "core/shell.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/wait.h>

namespace karst::test {
namespace {

using karst::shell::quote;

constexpr char EC_KEY[] = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";

std::vector<uint8_t> bytes_of_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string g_certificate_dir;

void remove_certificate_dir() {
    std::error_code ec;
    std::filesystem::remove_all(g_certificate_dir, ec);
}

} // namespace

int sh(const std::string &command_line) {
    const int status = std::system(command_line.c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool make_ca(const std::string &dir, const std::string &name) {
    const std::string base = dir + "/" + name;
    return sh("openssl req -x509" + std::string(EC_KEY) + " -keyout " + quote(base + ".key") +
              " -subj " + quote("/CN=" + name) + " -days 30 -outform DER -out " +
              quote(base + ".der") + " 2>/dev/null") == 0;
}

bool make_issued(const std::string &dir, const std::string &name, const std::string &ca) {
    const std::string base = dir + "/" + name;
    const std::string ca_base = dir + "/" + ca;
    return sh("openssl req -new" + std::string(EC_KEY) + " -keyout " + quote(base + ".key") +
              " -subj " + quote("/CN=" + name) + " -out " + quote(base + ".csr") +
              " 2>/dev/null && openssl x509 -req -in " + quote(base + ".csr") + " -CA " +
              quote(ca_base + ".der") + " -CAform DER -CAkey " + quote(ca_base + ".key") +
              " -CAcreateserial -days 30 -outform DER -out " + quote(base + ".der") +
              " 2>/dev/null") == 0;
}

bool public_key_of_csr(const std::string &csr_path, const std::string &pem_path) {
    return sh("openssl req -inform DER -in " + quote(csr_path) + " -verify -pubkey -noout -out " +
              quote(pem_path) + " 2>/dev/null") == 0;
}

} // namespace karst::test

namespace karst::test {

const CertificateSet &certificates() {
    static const CertificateSet set = [] {
        char templ[] = "/tmp/karst-certs-XXXXXX";
        CertificateSet s;
        if (mkdtemp(templ) == nullptr) {
            return s;
        }
        g_certificate_dir = templ;
        std::atexit(remove_certificate_dir);
        const std::string dir = templ;
        if (!make_ca(dir, "ca") || !make_issued(dir, "leaf", "ca") || !make_ca(dir, "stranger")) {
            return s;
        }
        s.ca_path = dir + "/ca.der";
        s.leaf_path = dir + "/leaf.der";
        s.stranger_path = dir + "/stranger.der";
        s.ca = bytes_of_file(s.ca_path);
        s.leaf = bytes_of_file(s.leaf_path);
        s.stranger = bytes_of_file(s.stranger_path);
        return s;
    }();
    return set;
}

} // namespace karst::test
