// SPDX-License-Identifier: Apache-2.0
// The command families of karstctl: each adds its sub-commands, their options and actions.
#pragma once

#include <CLI/CLI.hpp>

namespace karstctl {

void add_env(CLI::App &app);
void add_inventory(CLI::App &app);
void add_memreg(CLI::App &app);
void add_attest(CLI::App &app);
void add_cert(CLI::App &app);
// Sub-commands of "cert" that send certificates (cert.cpp calls it).
void add_cert_change(CLI::App &cert);
void add_signing(CLI::App &app);
void add_otp(CLI::App &app);
void add_image(CLI::App &app);
void add_board(CLI::App &app);

} // namespace karstctl
