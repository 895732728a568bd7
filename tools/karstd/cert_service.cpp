// SPDX-License-Identifier: Apache-2.0
#include "cert_service.hpp"

#include "certificate_der.hpp"
#include "device_certificate.hpp"
#include "encoding.hpp"
#include "small_file.hpp"

#include "karst.h"

#include <strings.h>
#include <unistd.h>

namespace karstd {
namespace {

constexpr char MANAGER_PATH[] = "/xyz/openbmc_project/certs/karst";
constexpr char REQUEST_PATH[] = "/xyz/openbmc_project/certs/karst/csr";
constexpr char CREATE[] = "xyz.openbmc_project.Certs.CSR.Create";
constexpr char CSR[] = "xyz.openbmc_project.Certs.CSR";
constexpr char CERTIFICATE[] = "xyz.openbmc_project.Certs.Certificate";
constexpr char REPLACE[] = "xyz.openbmc_project.Certs.Replace";
// Where the device certificate is replaced.
constexpr char DEVICE_URI[] = "Systems/1/Certificates/1";
constexpr size_t CERTIFICATE_FILE_MAX = 65536;
constexpr char FIRST_PRINTABLE = 0x20;
constexpr char LAST_PRINTABLE = 0x7E;

using Request = CertService::Request;

const sd_bus_vtable CREATE_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "GenerateCSR", "asssssssssxssassssss",
        SD_BUS_PARAM(AlternativeNames) SD_BUS_PARAM(ChallengePassword) SD_BUS_PARAM(City)
            SD_BUS_PARAM(CommonName) SD_BUS_PARAM(ContactPerson) SD_BUS_PARAM(Country) SD_BUS_PARAM(
                Email) SD_BUS_PARAM(GivenName) SD_BUS_PARAM(Initials) SD_BUS_PARAM(KeyBitLength)
                SD_BUS_PARAM(KeyCurveId) SD_BUS_PARAM(KeyPairAlgorithm) SD_BUS_PARAM(KeyUsage)
                    SD_BUS_PARAM(Organization) SD_BUS_PARAM(OrganizationalUnit) SD_BUS_PARAM(State)
                        SD_BUS_PARAM(Surname) SD_BUS_PARAM(UnstructuredName),
        "s", SD_BUS_PARAM(path), method<&CertService::generate_csr>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable CSR_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("CSR", "", "", "s", SD_BUS_PARAM(CSRString), method<&Request::csr>,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable CERTIFICATE_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("CertificateString", "s", property<&CertService::certificate_string>, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable REPLACE_VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Replace", "s", SD_BUS_PARAM(Path), "", "",
                             method<&CertService::replace>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// GenerateCSR's arguments, in their order.
struct CsrFields {
    std::vector<std::string> alternative_names;
    std::string challenge_password, city, common_name, contact_person, country, email, given_name,
        initials;
    int64_t key_bit_length = 0;
    std::string key_curve_id, key_pair_algorithm;
    std::vector<std::string> key_usage;
    std::string organization, organizational_unit, state, surname, unstructured_name;
};

std::string read_text(sd_bus_message *m) {
    const char *text = nullptr;
    check(sd_bus_message_read_basic(m, 's', &text), "reading the arguments");
    return text;
}

CsrFields read_fields(sd_bus_message *m) {
    CsrFields f;
    f.alternative_names = read_strings(m);
    for (std::string *s : {&f.challenge_password, &f.city, &f.common_name, &f.contact_person,
                           &f.country, &f.email, &f.given_name, &f.initials}) {
        *s = read_text(m);
    }
    check(sd_bus_message_read_basic(m, 'x', &f.key_bit_length), "reading the arguments");
    f.key_curve_id = read_text(m);
    f.key_pair_algorithm = read_text(m);
    f.key_usage = read_strings(m);
    for (std::string *s :
         {&f.organization, &f.organizational_unit, &f.state, &f.surname, &f.unstructured_name}) {
        *s = read_text(m);
    }
    return f;
}

void refuse(const std::string &why) {
    throw BusError(error::INVALID_ARGUMENT, why);
}

// The subject as the secure world takes it: "NAME=value" attributes joined by ",".
std::string subject_of(const CsrFields &f) {
    if (!f.alternative_names.empty() || !f.key_usage.empty() || !f.challenge_password.empty() ||
        !f.contact_person.empty()) {
        refuse("the request carries a subject only: no alternative names, key usage, challenge "
               "password or contact person");
    }
    if (f.common_name.empty()) {
        refuse("CommonName is required");
    }
    const std::pair<const char *, const std::string *> attributes[] = {
        {"CN", &f.common_name},
        {"O", &f.organization},
        {"OU", &f.organizational_unit},
        {"L", &f.city},
        {"ST", &f.state},
        {"C", &f.country},
        {"emailAddress", &f.email},
        {"GN", &f.given_name},
        {"SN", &f.surname},
        {"initials", &f.initials},
        {"unstructuredName", &f.unstructured_name}};
    std::string subject;
    for (const auto &[name, value] : attributes) {
        for (const char c : *value) {
            if (c < FIRST_PRINTABLE || c > LAST_PRINTABLE || c == ',') {
                refuse(std::string(name) + " holds a character a subject cannot: printable ASCII "
                                           "without ','");
            }
        }
        if (!value->empty()) { // appended piecewise: GCC 12 -O3 misjudges "a" + temporary
            subject.append(subject.empty() ? "" : ",").append(name).append("=").append(*value);
        }
    }
    return subject;
}

bool same_word(const std::string &given, const char *word) {
    return *word != '\0' && strcasecmp(given.c_str(), word) == 0;
}

// The key parameters must describe the device key (or be left empty).
void check_key(const CsrFields &f, const KeyKind &kind) {
    const bool algorithm =
        f.key_pair_algorithm.empty() || same_word(f.key_pair_algorithm, kind.algorithm);
    const bool curve = f.key_curve_id.empty() || same_word(f.key_curve_id, kind.curve) ||
                       same_word(f.key_curve_id, kind.curve_alias);
    const bool bits = f.key_bit_length == 0 || f.key_bit_length == kind.bits;
    if (!algorithm || !curve || !bits) {
        refuse(std::string("the request is for the device key, ") + kind.algorithm +
               (*kind.curve != '\0' ? std::string(" ") + kind.curve : std::string()) +
               "; the secure world makes no other");
    }
}

} // namespace

CertService::Request::Request(sd_bus *bus, std::string pem)
    : bus_(bus), pem_(std::move(pem)),
      slot_(add_interface(bus, REQUEST_PATH, CSR, CSR_VTABLE, this)) {
    sd_bus_emit_object_added(bus_, REQUEST_PATH);
}

CertService::Request::~Request() {
    sd_bus_emit_object_removed(bus_, REQUEST_PATH);
}

int CertService::Request::csr(sd_bus_message *m) {
    return sd_bus_reply_method_return(m, "s", pem_.c_str());
}

CertService::CertService(sd_bus *bus, const SecureWorld &secure_world, std::string state_dir)
    : bus_(bus), secure_world_(secure_world), state_dir_(std::move(state_dir)) {
    create_slot_ = add_interface(bus_, MANAGER_PATH, CREATE, CREATE_VTABLE, this);
    certificate_slot_ =
        add_interface(bus_, DEVICE_CERTIFICATE_PATH, CERTIFICATE, CERTIFICATE_VTABLE, this);
    replace_slot_ = add_interface(bus_, DEVICE_CERTIFICATE_PATH, REPLACE, REPLACE_VTABLE, this);
}

void CertService::refresh() {
    try {
        secure_world_.run(
            [&] { certificate_ = certificate_pem(read_certificate(CERTIFICATE_OBJECT)); });
        sd_bus_emit_properties_changed(bus_, DEVICE_CERTIFICATE_PATH, CERTIFICATE,
                                       "CertificateString", nullptr);
    } catch (const BusError &) {
        // read again when the secure world is free
    }
}

std::string CertService::make_request(const std::string &subject) const {
    const std::string out = state_dir_ + "/request.der";
    ::unlink(out.c_str());
    const int rc = pta_invoke_gen_csr_import(out.c_str(), subject.c_str(),
                                             static_cast<uint32_t>(subject.size() + 1));
    std::optional<std::vector<uint8_t>> request = read_small_file(out, CERTIFICATE_FILE_MAX);
    ::unlink(out.c_str());
    if (rc != 0 && rc != -1) {
        refuse("the secure world refused the subject " + subject);
    }
    if (rc != 0 || !request) {
        throw BusError(error::INTERNAL_FAILURE, "the secure world made no request");
    }
    return pem("CERTIFICATE REQUEST", *request);
}

int CertService::generate_csr(sd_bus_message *m) {
    const CsrFields fields = read_fields(m);
    const std::string subject = subject_of(fields);
    std::string request;
    secure_world_.run([&] {
        const std::vector<uint8_t> device = read_certificate(CHAIN_DEVICE_CERTIFICATE);
        const auto key = public_key_info(device);
        const KeyKind *kind = key ? key_kind(*key) : nullptr;
        if (kind == nullptr) {
            throw BusError(error::INTERNAL_FAILURE, "the device certificate's key is not known");
        }
        check_key(fields, *kind);
        request = make_request(subject);
    });
    request_.reset();
    request_ = std::make_unique<Request>(bus_, request);
    return sd_bus_reply_method_return(m, "s", REQUEST_PATH);
}

int CertService::replace(sd_bus_message *m) {
    const std::string path = read_text(m);
    const std::optional<std::vector<uint8_t>> bytes = read_small_file(path, CERTIFICATE_FILE_MAX);
    if (!bytes) {
        throw BusError(error::INVALID_CERTIFICATE, "cannot read a certificate file at " + path);
    }
    const std::string text(bytes->begin(), bytes->end());
    const std::optional<std::vector<uint8_t>> der =
        text.find("-----BEGIN CERTIFICATE-----") != std::string::npos
            ? pem_block(text, "CERTIFICATE")
            : bytes;
    if (!der || !is_der_sequence(*der)) {
        throw BusError(error::INVALID_CERTIFICATE, path + " holds no certificate (PEM or DER)");
    }
    secure_world_.run([&] {
        if (pta_invoke_replace_crt_import(DEVICE_URI, der->data(),
                                          static_cast<uint32_t>(der->size()), 0) != 0) {
            throw BusError(error::INVALID_CERTIFICATE, "the secure world refused the certificate");
        }
        certificate_ = certificate_pem(read_certificate(CERTIFICATE_OBJECT));
    });
    sd_bus_emit_properties_changed(bus_, DEVICE_CERTIFICATE_PATH, CERTIFICATE, "CertificateString",
                                   nullptr);
    return sd_bus_reply_method_return(m, "");
}

} // namespace karstd
