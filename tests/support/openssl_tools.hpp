// SPDX-License-Identifier: Apache-2.0
// Certificates, keys and checks made with the openssl program, for tests that need real DER
// material or an independent check of what the system produced.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace karst::test {

// Runs a command line with /bin/sh; its exit status (-1 when it did not exit).
int sh(const std::string &command_line);

// A self-signed CA: dir/<name>.der (DER certificate) and dir/<name>.key (PEM key), EC P-256.
bool make_ca(const std::string &dir, const std::string &name);
// A certificate for name issued by the CA ca (made by make_ca in the same dir): dir/<name>.der.
bool make_issued(const std::string &dir, const std::string &name, const std::string &ca);

// The subject public key of a DER CSR, as PEM in dir/<name>.pub.pem; false when openssl refuses
// the CSR.
bool public_key_of_csr(const std::string &csr_path, const std::string &pem_path);

// Real certificates made once per test process (in a directory of their own, removed at exit):
// a CA, a leaf issued by it, and a second CA that issued nothing.
struct CertificateSet {
    std::string ca_path, leaf_path, stranger_path;
    std::vector<uint8_t> ca, leaf, stranger;
};
const CertificateSet &certificates();

} // namespace karst::test
