// SPDX-License-Identifier: Apache-2.0
// The process's one TEE context and session, shared by every command routine.
#pragma once

#include <tee_client_api.h>

namespace karst::tee {

TEEC_Context &context();
TEEC_Session &session();

// Whether the context is open now (the library's own flag; also the descriptor's state where the
// context begins with it).
bool is_open();

// Whether the context has been initialised and not yet finalised, and whether the session is
// open. The client library is never called on a context or session that is not: over a real
// driver such a call dereferences a null context or reaches a descriptor that may by then be
// someone else's.
bool context_open();
bool session_open();

// The TEE device descriptor as the library sees it: -1 while the context is closed. Only
// meaningful where TEEC_Context begins with it; -1 otherwise.
int context_fd();

} // namespace karst::tee
