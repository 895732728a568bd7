// SPDX-License-Identifier: Apache-2.0
// The emulator's process-wide bookkeeping: scripted answers, call counters, the invoke journal
// and the records of what callers hold (contexts, sessions, registered memory).
#pragma once

#include "karst_emu.h"
#include "tee_client_api.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace karst::emu {

// Counts a call of op and takes its scripted answer, if one is queued and is not 0.
std::optional<uint32_t> next_scripted(karst_emu_op op);

// Holders, for parameter checks and leak checks.
void context_opened(TEEC_Context *ctx);
bool context_known(const TEEC_Context *ctx);
void context_closed(TEEC_Context *ctx);

void session_opened(TEEC_Session *session);
bool session_known(const TEEC_Session *session);
void session_closed(TEEC_Session *session);

// What the secure world sees of a block of shared memory: the memory it reads and writes and its
// length, fixed when the block is registered or allocated (the record's own size and flags are
// read at each invoke). A bounce buffer stands between the caller's memory and the secure world
// when the client works without registered memory; allocated memory is shared as it is.
struct Registration {
    uint8_t *shared;
    size_t length;
    bool bounce;    // shared is a bounce buffer of the emulator's own
    bool allocated; // shared was allocated for the caller (the record's buffer)
};
void memory_registered(TEEC_SharedMemory *shm, const Registration &reg);
std::optional<Registration> registration_of(const TEEC_SharedMemory *shm);
// The registration removed, for the caller to free what it holds; empty when there was none.
std::optional<Registration> memory_released(TEEC_SharedMemory *shm);

// Whether the client registers the caller's memory directly (the driver's registered-memory
// capability) or goes through bounce buffers: karst_emu_registered_memory,
// KARST_EMU_REGISTERED_MEMORY.
bool registers_memory();

// Journal: an invoke as received (inputs copied before the application runs) and its outcome.
struct JournalParam {
    uint32_t type = TEEC_NONE;
    uint32_t a = 0, b = 0;
    size_t size = 0;
    uint32_t flags = 0;
    std::vector<uint8_t> input; // the first bytes of input memory, up to the journal's limit
    size_t output_size = 0;
};
struct JournalEntry {
    uint32_t command = 0;
    uint32_t param_types = 0;
    uint32_t result = 0;
    uint32_t origin = 0;
    JournalParam params[4];
};
// How many input bytes an entry keeps of each memory reference.
size_t journal_input_limit();
void journal_add(JournalEntry entry);

} // namespace karst::emu
