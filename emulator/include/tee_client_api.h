/* SPDX-License-Identifier: Apache-2.0 */
/*
 * GlobalPlatform TEE Client API, as implemented by the karst secure-world emulator.
 *
 * Standard names and values of the GlobalPlatform TEE Client API. The standard fields of
 * TEEC_SharedMemory and TEEC_Operation come first, in the standard order; TEEC_Context begins
 * with the TEE device descriptor, as the common open-source client library lays it out. Every
 * other field is the emulator's own and must not be touched by callers.
 */
#ifndef KARST_EMULATOR_TEE_CLIENT_API_H
#define KARST_EMULATOR_TEE_CLIENT_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TEEC_CONFIG_PAYLOAD_REF_COUNT 4
#define TEEC_CONFIG_SHAREDMEM_MAX_SIZE 0x7FFFFFFFu

/* Return codes */
#define TEEC_SUCCESS 0x00000000u
#define TEEC_ERROR_STORAGE_NOT_AVAILABLE 0xF0100003u
#define TEEC_ERROR_GENERIC 0xFFFF0000u
#define TEEC_ERROR_ACCESS_DENIED 0xFFFF0001u
#define TEEC_ERROR_CANCEL 0xFFFF0002u
#define TEEC_ERROR_ACCESS_CONFLICT 0xFFFF0003u
#define TEEC_ERROR_EXCESS_DATA 0xFFFF0004u
#define TEEC_ERROR_BAD_FORMAT 0xFFFF0005u
#define TEEC_ERROR_BAD_PARAMETERS 0xFFFF0006u
#define TEEC_ERROR_BAD_STATE 0xFFFF0007u
#define TEEC_ERROR_ITEM_NOT_FOUND 0xFFFF0008u
#define TEEC_ERROR_NOT_IMPLEMENTED 0xFFFF0009u
#define TEEC_ERROR_NOT_SUPPORTED 0xFFFF000Au
#define TEEC_ERROR_NO_DATA 0xFFFF000Bu
#define TEEC_ERROR_OUT_OF_MEMORY 0xFFFF000Cu
#define TEEC_ERROR_BUSY 0xFFFF000Du
#define TEEC_ERROR_COMMUNICATION 0xFFFF000Eu
#define TEEC_ERROR_SECURITY 0xFFFF000Fu
#define TEEC_ERROR_SHORT_BUFFER 0xFFFF0010u
#define TEEC_ERROR_EXTERNAL_CANCEL 0xFFFF0011u
#define TEEC_ERROR_TARGET_DEAD 0xFFFF3024u

/* Return origins */
#define TEEC_ORIGIN_API 0x00000001u
#define TEEC_ORIGIN_COMMS 0x00000002u
#define TEEC_ORIGIN_TEE 0x00000003u
#define TEEC_ORIGIN_TRUSTED_APP 0x00000004u

/* Shared memory flags */
#define TEEC_MEM_INPUT 0x00000001u
#define TEEC_MEM_OUTPUT 0x00000002u

/* Parameter types */
#define TEEC_NONE 0x00000000u
#define TEEC_VALUE_INPUT 0x00000001u
#define TEEC_VALUE_OUTPUT 0x00000002u
#define TEEC_VALUE_INOUT 0x00000003u
#define TEEC_MEMREF_TEMP_INPUT 0x00000005u
#define TEEC_MEMREF_TEMP_OUTPUT 0x00000006u
#define TEEC_MEMREF_TEMP_INOUT 0x00000007u
#define TEEC_MEMREF_WHOLE 0x0000000Cu
#define TEEC_MEMREF_PARTIAL_INPUT 0x0000000Du
#define TEEC_MEMREF_PARTIAL_OUTPUT 0x0000000Eu
#define TEEC_MEMREF_PARTIAL_INOUT 0x0000000Fu

/* Login methods */
#define TEEC_LOGIN_PUBLIC 0x00000000u
#define TEEC_LOGIN_USER 0x00000001u
#define TEEC_LOGIN_GROUP 0x00000002u
#define TEEC_LOGIN_APPLICATION 0x00000004u
#define TEEC_LOGIN_USER_APPLICATION 0x00000005u
#define TEEC_LOGIN_GROUP_APPLICATION 0x00000006u

#define TEEC_PARAM_TYPES(p0, p1, p2, p3)                                                           \
    ((uint32_t)(p0) | ((uint32_t)(p1) << 4) | ((uint32_t)(p2) << 8) | ((uint32_t)(p3) << 12))
#define TEEC_PARAM_TYPE_GET(t, i) (((t) >> ((i)*4)) & 0xFu)

#if defined(__GNUC__)
#define TEEC_API_EXPORT __attribute__((visibility("default")))
#else
#define TEEC_API_EXPORT
#endif

typedef uint32_t TEEC_Result;

typedef struct {
    uint32_t timeLow;
    uint16_t timeMid;
    uint16_t timeHiAndVersion;
    uint8_t clockSeqAndNode[8];
} TEEC_UUID;

typedef struct {
    int fd;             /* TEE device descriptor; the first member, as callers may rely on */
    uint32_t imp_id;    /* emulator's own: identity of this context */
    void *imp_reserved; /* emulator's own */
} TEEC_Context;

typedef struct {
    TEEC_Context *ctx; /* emulator's own */
    uint32_t imp_id;   /* emulator's own: identity of this session */
    int imp_lock_fd;   /* emulator's own: the application's session lock */
} TEEC_Session;

typedef struct {
    void *buffer;
    size_t size;
    uint32_t flags;
    /* emulator's own */
    uint32_t imp_id;
    TEEC_Context *imp_ctx;
    void *imp_reserved;
} TEEC_SharedMemory;

typedef struct {
    void *buffer;
    size_t size;
} TEEC_TempMemoryReference;

typedef struct {
    TEEC_SharedMemory *parent;
    size_t size;
    size_t offset;
} TEEC_RegisteredMemoryReference;

typedef struct {
    uint32_t a;
    uint32_t b;
} TEEC_Value;

typedef union {
    TEEC_TempMemoryReference tmpref;
    TEEC_RegisteredMemoryReference memref;
    TEEC_Value value;
} TEEC_Parameter;

typedef struct {
    uint32_t started;
    uint32_t paramTypes;
    TEEC_Parameter params[TEEC_CONFIG_PAYLOAD_REF_COUNT];
    /* emulator's own */
    TEEC_Session *imp_session;
} TEEC_Operation;

TEEC_API_EXPORT TEEC_Result TEEC_InitializeContext(const char *name, TEEC_Context *context);
TEEC_API_EXPORT void TEEC_FinalizeContext(TEEC_Context *context);
TEEC_API_EXPORT TEEC_Result TEEC_OpenSession(TEEC_Context *context, TEEC_Session *session,
                                             const TEEC_UUID *destination,
                                             uint32_t connectionMethod, const void *connectionData,
                                             TEEC_Operation *operation, uint32_t *returnOrigin);
TEEC_API_EXPORT void TEEC_CloseSession(TEEC_Session *session);
TEEC_API_EXPORT TEEC_Result TEEC_InvokeCommand(TEEC_Session *session, uint32_t commandID,
                                               TEEC_Operation *operation, uint32_t *returnOrigin);
TEEC_API_EXPORT TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context *context,
                                                      TEEC_SharedMemory *sharedMem);
TEEC_API_EXPORT TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context *context,
                                                      TEEC_SharedMemory *sharedMem);
TEEC_API_EXPORT void TEEC_ReleaseSharedMemory(TEEC_SharedMemory *sharedMemory);
TEEC_API_EXPORT void TEEC_RequestCancellation(TEEC_Operation *operation);

#ifdef __cplusplus
}
#endif

#endif
