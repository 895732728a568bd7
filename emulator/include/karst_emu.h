/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Test controls of the karst secure-world emulator.
 *
 * The emulator is a drop-in TEE client library (libteec.so.1) with a model of the board's
 * pseudo trusted application behind it. These calls let tests script its answers, inject
 * failures, read a journal of every command invoked, and check that nothing was left behind.
 *
 * The same scripts can be given to whole processes through environment variables, read when a
 * process first initialises a context:
 *   KARST_EMU_SCRIPT_INIT, KARST_EMU_SCRIPT_OPEN, KARST_EMU_SCRIPT_REGISTER,
 *   KARST_EMU_SCRIPT_INVOKE   comma-separated result codes (decimal or 0x hex) for the next calls
 *                             of that kind; 0 lets a call proceed normally.
 *   KARST_EMU_JOURNAL         a file to which one line per invoke is appended.
 *   KARST_EMU_REGISTERED_MEMORY  0: the client works without registered memory (see
 *                             karst_emu_registered_memory).
 *
 * State (the application's stored values) lives under $KARST_ROOT/var/lib/karst-emulator, or
 * /var/lib/karst-emulator when KARST_ROOT is not set.
 */
#ifndef KARST_EMU_H
#define KARST_EMU_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KARST_EMU_API __attribute__((visibility("default")))

typedef enum {
    KARST_EMU_INIT = 0,     /* TEEC_InitializeContext */
    KARST_EMU_OPEN = 1,     /* TEEC_OpenSession */
    KARST_EMU_REGISTER = 2, /* TEEC_RegisterSharedMemory, TEEC_AllocateSharedMemory */
    KARST_EMU_INVOKE = 3,   /* TEEC_InvokeCommand */
    KARST_EMU_OP_COUNT = 4
} karst_emu_op;

/* Queues answers for the next count calls of op: each call takes the next code; a code of 0
 * lets the call proceed normally. Scripted failures change nothing in the emulator. Replaces
 * any answers still queued for op. */
KARST_EMU_API void karst_emu_script(karst_emu_op op, const uint32_t *codes, size_t count);
/* Makes the nth call of op from now on (1 for the next) fail with code. */
KARST_EMU_API void karst_emu_fail_nth(karst_emu_op op, size_t nth, uint32_t code);
/* on (the default): memory registered from now on is shared with the secure world as it is, as
 * a client library does over a driver that registers memory. 0: as a client library does without
 * that capability, each registration gets a bounce buffer of its own (zeroed); around every invoke
 * the caller's bytes are copied into it only for input references, and back only for output
 * references. Allocated memory is shared as it is either way. karst_emu_reset restores on. */
KARST_EMU_API void karst_emu_registered_memory(int on);
/* Calls of op made since the last reset. */
KARST_EMU_API size_t karst_emu_calls(karst_emu_op op);

/* What the process holds now: for checks that nothing was left behind. */
typedef struct {
    size_t contexts;   /* initialised and not finalised */
    size_t sessions;   /* open and not closed */
    size_t registered; /* shared memory registered and not released */
} karst_emu_stats;
KARST_EMU_API void karst_emu_get_stats(karst_emu_stats *stats);

/* One invoke as the application received it. */
typedef struct {
    uint32_t type;        /* TEEC_NONE, TEEC_VALUE_*, TEEC_MEMREF_* as given by the caller */
    uint32_t a, b;        /* value parameters */
    size_t size;          /* memory references: the size of the referenced memory */
    uint32_t flags;       /* registered memory: the block's TEEC_MEM_ flags */
    const uint8_t *input; /* input memory as it was sent (first input_kept bytes) */
    size_t input_kept;
    size_t output_size; /* output memory: the size reported back */
} karst_emu_param;

typedef struct {
    uint32_t command;
    uint32_t param_types;
    uint32_t result;
    uint32_t origin;
    karst_emu_param params[4];
} karst_emu_invoke_record;

/* Number of invokes journalled since the last clear. */
KARST_EMU_API size_t karst_emu_journal_count(void);
/* Copies record index; its input pointers stay valid until the journal is cleared. Returns 0, or
 * -1 for an index out of range. */
KARST_EMU_API int karst_emu_journal_get(size_t index, karst_emu_invoke_record *record);
KARST_EMU_API void karst_emu_journal_clear(void);
/* How many input bytes a journal record keeps of each memory reference (default 1 MiB). */
KARST_EMU_API void karst_emu_journal_input_limit(size_t bytes);

/* Answers every invoke of command, in place of the application's model of it: output parameter
 * param receives the size bytes at data and the result is TEEC_SUCCESS (TEEC_ERROR_SHORT_BUFFER
 * with the size needed when the output memory is smaller, or TEEC_ERROR_BAD_PARAMETERS when
 * param is not output memory). A null data clears the answer; karst_emu_reset clears all. */
KARST_EMU_API void karst_emu_answer(uint32_t command, uint32_t param, const void *data,
                                    size_t size);

/* RA data as the application issues it for the certificate cert (DER, cert_len bytes): 66,560
 * bytes written to out (out_len at least that), accepted by an RA refresh. Returns the bytes
 * written, or 0. */
KARST_EMU_API size_t karst_emu_ra_issue(const uint8_t *cert, size_t cert_len, uint8_t *out,
                                        size_t out_len);

/* Clears scripts, counters, answers and the journal, and restores the programming rate (not the
 * application's stored state). */
KARST_EMU_API void karst_emu_reset(void);

/* Copies size bytes of the board's OTP user area from offset into out (bytes never programmed
 * read 0x00). Returns 0, or -1 when the range lies outside the 1,024-byte area. */
KARST_EMU_API int karst_emu_otp_user_read(uint32_t offset, uint8_t *out, size_t size);

/* Checks RA data as the application issues it (66,560 bytes: the data, then the signature
 * region) the way an RA refresh does. Returns 0, or 0xFFFF3074 when it would be rejected. */
KARST_EMU_API uint32_t karst_emu_ra_check(const uint8_t *result, size_t size);
/* Bytes per second at which the application programs a device during an image update (0: at
 * once). The default, 32 MiB/s, makes a 64 MiB update take two seconds; a process can set it with
 * KARST_EMU_PROGRAM_RATE. karst_emu_reset restores the default. */
KARST_EMU_API void karst_emu_program_rate(uint64_t bytes_per_second);

/* The application's record of an uploaded copy of a slot (image word's type and slot): its
 * length and digest. Returns 0, or -1 when the slot holds no copy. */
KARST_EMU_API int karst_emu_image_copy(uint32_t img_id, uint64_t *size, uint64_t *digest);
/* The digest the application records for an image's bytes. */
KARST_EMU_API uint64_t karst_emu_image_digest(const void *data, size_t size);

/* Creates the run root's directory tree (nv1, tmp, etc/defaults, dev, usr/bin and the
 * emulator's state directory) under root, and the eMMC: the sparse files dev/mmcblk0 (128 MiB)
 * and dev/mmcblk0p2 (136 MiB), when missing. Returns 0 or -1. */
KARST_EMU_API int karst_emu_setup(const char *root);

#ifdef __cplusplus
}
#endif

#endif
