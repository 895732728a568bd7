// SPDX-License-Identifier: Apache-2.0
// Certificates: the device certificate at /xyz/openbmc_project/certs/karst/device
// (Certs.Certificate's CertificateString, Certs.Replace), certificate signing requests from
// /xyz/openbmc_project/certs/karst (Certs.CSR.Create), the latest request at .../karst/csr
// (Certs.CSR). The device key never leaves the secure world: a request is for that key, and
// asks only for a subject.
#pragma once

#include "bus.hpp"
#include "secure_world.hpp"

#include <memory>

namespace karstd {

class CertService {
  public:
    CertService(sd_bus *bus, const SecureWorld &secure_world, std::string state_dir);

    // Reads the certificate string when the secure world is free.
    void refresh();

    int generate_csr(sd_bus_message *m);
    int replace(sd_bus_message *m);
    std::string certificate_string() const { return certificate_; }

    // The latest request.
    class Request {
      public:
        Request(sd_bus *bus, std::string pem);
        ~Request();
        Request(const Request &) = delete;
        Request &operator=(const Request &) = delete;
        int csr(sd_bus_message *m);

      private:
        sd_bus *bus_;
        std::string pem_;
        Slot slot_;
    };

  private:
    // The signed request for subject, as PEM, inside the open session.
    std::string make_request(const std::string &subject) const;

    sd_bus *bus_;
    const SecureWorld &secure_world_;
    std::string state_dir_;
    std::string certificate_;
    std::unique_ptr<Request> request_;
    Slot create_slot_, certificate_slot_, replace_slot_;
};

} // namespace karstd
