// SPDX-License-Identifier: Apache-2.0
// Certificate signing request (13): parameter 2 holds the request's subject as text,
// "NAME=value" attributes separated by "," (for example "CN=bmc-01,O=Example,C=US"), optionally
// ended by a zero byte or a line end. The answer in parameter 1 is a DER PKCS#10 request for the
// device key, signed with it. A text that is not such a subject is answered BAD_FORMAT.
#include "application.hpp"
#include "device_identity.hpp"

#include <memory>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace karst::emu {
namespace {

// The characters a subject may hold: printable ASCII.
constexpr char FIRST_PRINTABLE = 0x20;
constexpr char LAST_PRINTABLE = 0x7E;

// The subject text: up to the first zero byte, without trailing line ends or blanks.
std::string subject_text(std::span<const uint8_t> input) {
    std::string text(input.begin(), input.end());
    text = text.substr(0, text.find('\0'));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// Whether every attribute of text is one that a certificate name can hold.
bool valid_subject(const std::string &text) {
    if (text.empty()) {
        return false;
    }
    std::unique_ptr<X509_NAME, decltype(&X509_NAME_free)> name(X509_NAME_new(), &X509_NAME_free);
    size_t pos = 0;
    while (name && pos <= text.size()) {
        size_t end = text.find(',', pos);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string part = text.substr(pos, end - pos);
        const size_t eq = part.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == part.size()) {
            return false;
        }
        const std::string field = part.substr(0, eq);
        const std::string value = part.substr(eq + 1);
        for (char c : part) {
            if (c < FIRST_PRINTABLE || c > LAST_PRINTABLE) {
                return false;
            }
        }
        if (X509_NAME_add_entry_by_txt(name.get(), field.c_str(), MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char *>(value.c_str()), -1,
                                       -1, 0) != 1) {
            ERR_clear_error(); // an unknown attribute name or a value it cannot take
            return false;
        }
        pos = end + 1;
    }
    return name != nullptr;
}

} // namespace

TEEC_Result gen_csr(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_out, Kind::mem_in)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const std::string subject = subject_text(params[2].memory);
    if (!valid_subject(subject)) {
        return TEEC_ERROR_BAD_FORMAT;
    }
    const std::vector<uint8_t> csr = identity::make_csr(subject);
    if (csr.empty()) {
        return TEEC_ERROR_GENERIC;
    }
    return params[1].put(csr.data(), csr.size());
}

} // namespace karst::emu
