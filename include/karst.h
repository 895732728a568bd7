/* SPDX-License-Identifier: Apache-2.0 */
/*
 * karst: the board's secure-world services for the management controller's programs.
 *
 * Every call opens the TEE session it needs and closes it before it returns, unless its
 * description says otherwise. Results: 0 for success, -1 for a failure, unless a call says it
 * returns a TEE result code. Messages are printed on standard output.
 *
 * Usable from C99 and C++.
 */
#ifndef KARST_H
#define KARST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KARST_API __attribute__((visibility("default")))
#else
#define KARST_API
#endif

/* ---------------------------------------------------------------------------------------------
 * Version. The build reads these four lines: they give libkarst.so's version (the major number
 * its soname's), karst.pc's and the CMake package's.
 */
#define KARST_VERSION_MAJOR 1
#define KARST_VERSION_MINOR 0
#define KARST_VERSION_PATCH 0
#define KARST_VERSION "1.0.0"

/* The version of the library the program runs with: KARST_VERSION as it was when the library
 * was built, to compare with the KARST_VERSION the program was compiled with. Never null. */
KARST_API const char *karst_version(void);

/* ---------------------------------------------------------------------------------------------
 * Command numbers. A dispatcher number equals the command ID the secure world sees, except that
 * 32 and 33 are aliases of 31.
 */
#define PTA_DALU_CMD_FW_AUTH 0u
#define PTA_DALU_CMD_FW_UPLOAD 1u
#define PTA_DALU_CMD_FW_UPDATE 2u
#define PTA_DALU_CMD_FW_DUMP 3u
#define PTA_DALU_CMD_UBOOTENV_GET 4u
#define PTA_DALU_CMD_UBOOTENV_SET 5u
#define PTA_DALU_CMD_CPLD_REGR 6u
#define PTA_DALU_CMD_CPLD_REGW 7u
#define PTA_DALU_CMD_INVENTORY_GET 8u
#define PTA_DALU_CMD_INVENTORY_SET 9u
#define PTA_DALU_CMD_FW_DELETE 10u
#define PTA_DALU_CMD_REPLACE_CRT 11u
#define PTA_DALU_CMD_ATT_DUMP 12u
#define PTA_DALU_CMD_GEN_CSR 13u
#define PTA_DALU_CMD_ATT_SIGN 14u
#define PTA_DALU_CMD_ATT_VERIFY 15u
#define PTA_DALU_CMD_BLK_GET 16u
#define PTA_DALU_CMD_BLK_VERIFY 17u
#define PTA_DALU_CMD_MEMREG_GET 18u
#define PTA_DALU_CMD_OTP_GET_KEY 20u
#define PTA_DALU_CMD_OTP_PROG_USR 21u
#define PTA_DALU_CMD_PROV_QUERY 22u
#define PTA_DALU_CMD_BOARD_SN_GET 23u
#define PTA_DALU_CMD_ATT_VALIDATE 24u
#define PTA_DALU_CMD_FPGA_READY 25u
#define PTA_DALU_CMD_RA_REFRESH 26u
#define PTA_DALU_CMD_REPLACE_RA_CRT 27u
#define PTA_DALU_CMD_AUTH_CERTS 30u
#define PTA_DALU_CMD_FW_AUTH_DBLK 31u
#define PTA_DALU_CMD_GET_CERTIFICATE 34u

/* ---------------------------------------------------------------------------------------------
 * TEE session. One context and one session per process.
 */

/* Opens the context and the session. Returns 0, 0xFFFF000D (busy) when this process already has
 * them open, or the TEE client library's result code. Waits out a busy secure world with three
 * attempts, 100 ms apart. */
KARST_API uint32_t pta_open_session(void);
/* Closes what a successful pta_open_session() opened. */
KARST_API void pta_close_session(void);

/* ---------------------------------------------------------------------------------------------
 * Command argument block and dispatcher.
 *
 * The block is six pointer-width words. Word 0 and 1 carry numbers, word 3 a length or count,
 * words 4 and 5 addresses; word 2 is carried but unused (set it to 0).
 */
#define PTA20_ARGS_WORDS 6

/* Stores a1..a3 in words 0..2, a4 in word 4, a5 in word 3 and a6 in word 5. */
KARST_API void pta20_args(uintptr_t *block, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                          uintptr_t a5, uintptr_t a6);
/* Runs the routine for the command number with the words it needs and returns its result;
 * -1 for a number without a routine. The session must be open. */
KARST_API int pta_invoke_cmd(uint32_t number, uintptr_t *block);
/* The dispatcher's second level, for numbers 4 to 9, 14 and 15. */
KARST_API int pta_invoke_cmd_default(uint32_t number, uintptr_t word1, uintptr_t word4);
/* Ignores its arguments and returns -1. */
KARST_API int pta_invoke_test_cmd(uintptr_t a, uintptr_t b);

/* Exported for compatibility; the library never reads or writes it. */
KARST_API extern uint32_t cmd_args;

/* ---------------------------------------------------------------------------------------------
 * File helpers.
 */

/* Reads a whole file into a new heap buffer, which the caller frees (also for an empty file).
 * On failure *buffer_out is null or unchanged and -1 is returned. */
KARST_API int readbin(const char *path, uint8_t **buffer_out, uint32_t *size_out);
/* Writes size bytes to path, creating or truncating the file. */
KARST_API int writebin(const char *path, const void *buffer, uint32_t size);
/* Copies source into a field of capacity bytes (at least 1), cutting it with a warning when it
 * does not fit. The destination is always terminated. */
KARST_API void xstrcpy(char *destination, const char *source, int capacity);

/* ---------------------------------------------------------------------------------------------
 * Data blocks: named values in a caller's buffer, carried to the secure world in one piece.
 *
 * Layout: a 16-byte header (crc little-endian, magic id little-endian, four format bytes
 * 01 01 00 01, max_data_len big-endian), then max_data_len bytes of key/value pairs followed by
 * zero bytes. The CRC-32 covers bytes 4 to the end of the data area.
 *
 * The caller owns the buffer. Calls that take no buffer length read 16 + max_data_len bytes
 * (as the header states) whenever max_data_len is 1 to DATABLK_MAX_LEN: the caller guarantees
 * that the buffer holds that much, and that it holds at least the 16-byte header. A block from
 * other software whose size is not known to match should pass pta20_datablk_check first.
 * Records whose lengths point past the data area are refused, never followed.
 */
#define DATABLK_MAGIC_CERT 0x43524544u /* certificate block */
#define DATABLK_MAGIC_ATT 0x49545441u  /* attestation block */
#define DATABLK_MAGIC_FW 0x54524244u   /* firmware authentication block */
#define DATABLK_TAG_NAME 0x16u         /* tag of a key name record */
#define DATABLK_TAG_VALUE 0x02u        /* tag of a value record */
#define DATABLK_HEADER_LEN 16u
#define DATABLK_MAX_LEN 0x3FFFF0u /* bound of buffer, data area, value and capacity lengths */
#define DATABLK_NAME_MAX 255u     /* longest key name, in bytes */
#define DATABLK_INFO_MAX_LEN 1    /* pta20_datablk_get_info: size of the data area */
#define DATABLK_INFO_USED_LEN 2   /* ... bytes used by the records, -1 when they fill it */
#define DATABLK_INFO_CRC 4        /* ... the stored CRC word */

/* Makes an empty block in blk (len bytes, 17 to DATABLK_MAX_LEN) for the magic id. */
KARST_API int pta20_datablk_create(uint32_t magic_id, void *blk, uint32_t len);
/* Stores len bytes (1 to DATABLK_MAX_LEN) under name (1 to 255 bytes), replacing its value or
 * adding the key; refreshes the CRC. On any failure the block is left exactly as it was. data
 * must not lie inside the block. */
KARST_API int pta20_datablk_set(uint32_t magic_id, const char *name, const void *data, uint32_t len,
                                void *blk);
/* Copies the value of name into data. *len holds data's capacity on entry (1 to
 * DATABLK_MAX_LEN) and the value's length on success; data is zeroed over the capacity first. */
KARST_API int pta20_datablk_get(uint32_t magic_id, const char *name, void *data, uint32_t *len,
                                const void *blk);
/* One of the DATABLK_INFO_ numbers of a block whose CRC is right, or -1. */
KARST_API int32_t pta20_datablk_get_info(const void *blk, int32_t opt);
/* Recomputes and stores the block's CRC. */
KARST_API int pta20_datablk_update_crc(uint32_t magic_id, void *blk);
/* Ends the use of a block (the arguments of its create); the caller frees the buffer. */
KARST_API int pta20_datablk_destroy(uint32_t magic_id, void *blk, uint32_t len);
/* Checks a block received in a buffer of buffer_len bytes: its header and data area fit the
 * buffer, its CRC is right and every record lies inside the data area. */
KARST_API int pta20_datablk_check(const void *blk, uint32_t buffer_len);
/* CRC-32 step: starts from crc as given and returns the complement. crc32i(0xFFFFFFFF, ...)
 * is the standard CRC-32; to continue over a further piece pass ~(previous result). */
KARST_API uint32_t crc32i(uint32_t crc, const void *buf, uint32_t len);

/* ---------------------------------------------------------------------------------------------
 * U-Boot environment.
 */

/* Reads variable name into buffer (size bytes; 0 means room for 32768). The value is copied
 * with its terminating zero. */
KARST_API int pta20_ubootenv_get(const char *name, char *buffer, uint32_t size);
/* Sets variable name to value; a null or empty value clears it. */
KARST_API int pta20_ubootenv_set(const char *name, const char *value);

/* Bodies of the calls above; they need the open session. With a null out, the variable is
 * printed as name=value. */
KARST_API int _pta_invoke_ubootenv_get(const char *name, char *out, uint32_t out_size);
KARST_API int _pta_invoke_ubootenv_set(const char *name, const char *value);
/* Dispatcher entries 4 and 5: text is a variable name, or name=value (split in place). */
KARST_API int pta_invoke_ubootenv_get(uint32_t number, char *text);
KARST_API int pta_invoke_ubootenv_set(uint32_t number, char *text);

/* ---------------------------------------------------------------------------------------------
 * CPLD registers. Dispatcher entries 6 and 7; the session must be open.
 */

/* Reads the register named by text (a number, "0x" for hexadecimal) and prints
 * "Read CPLD Reg[RR] = VV". */
KARST_API int pta_invoke_cpld_regr(uint32_t number, char *text);
/* Writes register=value (text split in place at the "="); both cut to 8 bits. */
KARST_API int pta_invoke_cpld_regw(uint32_t number, char *text);

/* ---------------------------------------------------------------------------------------------
 * Firmware images.
 *
 * An image word (img_id) names a device's image type (bits 15..8) and a slot (bits 7..0); the
 * flags word (img_flags) says where the image bytes come from (bits 2..0) and asks for backup
 * and evidence dumps before an update. Both travel to the secure world unchanged.
 */
#define IMG_TYPE_BMC 0u
#define IMG_TYPE_BIOS 1u
#define IMG_TYPE_CPLD 2u
#define IMG_TYPE_BPNCPLD 3u
#define IMG_TYPE_NVFPGA 9u
#define IMG_TYPE_NVBIOS 12u
#define IMG_TYPE_SCMFPGA 21u
#define IMG_TYPE_PDBFPGA 22u
#define IMG_TYPE_EROTMCU 23u
#define IMG_TYPE_COUNT 24u

#define IMG_IDX_ACTIVE 0u
#define IMG_IDX_STAGING 1u
#define IMG_IDX_BACKUP 2u
#define IMG_IDX_GOLDEN 3u
#define IMG_IDX_EVIDENCE 4u
#define IMG_IDX_BACKUP_ST 6u
#define IMG_IDX_GOLDEN_ST 7u
#define IMG_IDX_COUNT 15u

/* The image word of a type and a slot. */
#define IMG_ID(type, index) ((((uint32_t)(type)&0xFFu) << 8) | ((uint32_t)(index)&0xFFu))

/* Source of the image bytes (img_flags bits 2..0). */
#define IMG_SRC_TABLE 0u    /* the slot's own file or eMMC region */
#define IMG_SRC_BUFFER 1u   /* the caller's buffer (arg) */
#define IMG_SRC_FILE 2u     /* the caller's file (arg, a path) */
#define IMG_SRC_EXTENDED 3u /* a copy of the slot's file, cut or padded to 32 MiB */
#define IMG_SRC_MASK 7u
#define IMG_FLAG_BACKUP 0x08u   /* before an update, dump the device into the backup slot */
#define IMG_FLAG_EVIDENCE 0x10u /* before an update, dump the device into the evidence slot */

/* Slot kinds of the image table. */
#define IMG_KIND_MMC 3u  /* a region of /dev/mmcblk0p2 */
#define IMG_KIND_FILE 4u /* a file under /nv1 */

/* Authenticates an image; retried while the secure world answers busy (0xFFFFFFFE). */
KARST_API int pta20_img_auth(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size);
/* Uploads an image; retried like pta20_img_auth. Returns 0, -1, or the secure world's result
 * code (0xFFFFFFFE after ten busy answers). */
KARST_API int pta20_img_upload(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size);
/* Dumps the device's image into the slot's file (source 0) or the file arg (source 2). The
 * active BMC image (img_id 0) is copied from the eMMC to /tmp/fw_image instead. */
KARST_API int pta20_img_dump(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size);
/* Deletes a stored staging (slot 1) or backup (slot 2) copy. */
KARST_API int pta20_img_delete(uint32_t img_id, uint32_t img_flags);
/* Updates the device from the image, after the backup and evidence dumps that img_flags asks
 * for. 0 only when the update and every dump succeeded. */
KARST_API int pta20_img_update(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size);

/* Image command routines, reached through the dispatcher (numbers 0 to 3, 10, 31 to 33) inside
 * an open session. Upload, update and dump return the secure world's result code when the
 * command fails there; the others return -1. */
KARST_API int pta_invoke_fw_auth(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                 uint32_t size);
KARST_API int pta_invoke_fw_upload(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                   uint32_t size);
KARST_API int pta_invoke_fw_update(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                   uint32_t size);
KARST_API int pta_invoke_fw_dump(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                 uint32_t size);
KARST_API int pta_invoke_fw_delete(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg);
KARST_API int pta_invoke_fw_auth_dblk(uint32_t cmd, uint32_t img_id, uint32_t img_flags, void *arg,
                                      uint32_t size);

/* Asynchronous update. The caller owns the context and keeps it in place until state has left
 * IMG_UPD_QUEUED and IMG_UPD_RUNNING; the update thread writes state, the caller's polls write
 * progress. */
#define IMG_UPD_IDLE 0    /* nothing running, or the last update succeeded */
#define IMG_UPD_QUEUED 1  /* thread created, not yet running */
#define IMG_UPD_RUNNING 2 /* the update runs; -1 after a failed update */

typedef struct img_update_ctx {
    int32_t state;    /* IMG_UPD_*, or -1 after a failed update */
    uint32_t img;     /* image word */
    uint32_t flags;   /* flags word */
    void *arg;        /* buffer or path, as for pta20_img_update */
    int32_t progress; /* last reported percentage, 0 to 98 */
    uint32_t size;    /* image length, as for pta20_img_update */
} img_update_ctx;

/* Starts pta20_img_update on a detached thread. Only types with a progress file (BIOS, CPLD,
 * NVFPGA, NVBIOS, EROTMCU) and a context in state 0 can start. */
KARST_API int pta20_img_update_async(img_update_ctx *ctx);
/* Polls the progress file; returns ctx->progress (never above 98, never backwards while the
 * update runs; 0 after a failed update). */
KARST_API int pta20_img_updprogress(img_update_ctx *ctx);
/* Mode 1: removes the type's progress file (0). Other modes: the percentage read from it.
 * -1 for a type without a progress file or a file that cannot be read. */
KARST_API int pta20_img_updmsg(uint32_t img_id, uint32_t mode);

/* Signature table of a signed image. */
#define SIGTBL_VERSION 0x5300u
#define SIGTBL_MAX_ENTRIES 16
#define SIGTBL_MAX_BYTES 408

typedef struct sig_block {
    uint32_t address;
    uint32_t size; /* bytes */
    uint8_t flag;  /* 1: another block follows */
} sig_block;

typedef struct sig_entry {
    uint32_t offset;
    uint32_t boot_id_offset;
    uint8_t flag; /* 1: another signature follows */
} sig_entry;

/* Decodes and prints the table (big-endian words, at most 408 bytes, 4-byte aligned) into the
 * caller's 16 blocks and 16 signatures. -1 when the version is not 0x5300. */
KARST_API int dalu_parse_sigtbl(const uint32_t *table, sig_block *blocks, sig_entry *sigs);

/* Tells the secure world that the FPGA is ready (command 25, no parameters). */
KARST_API int pta20_fpga_ready(void);
/* Body of pta20_fpga_ready; the session must be open. Returns 0 or the TEE result code. */
KARST_API int pta_invoke_fpga_ready(uint32_t cmd);
/* Switches the BIOS flash to 4-byte (enable non-zero) or 3-byte addressing through a CPLD
 * register write. */
KARST_API int pta20_bios_set4Byte(uint32_t enable);

/* ---------------------------------------------------------------------------------------------
 * Inventory: named values kept by the secure world, cached in the inventory file.
 */

/* The inventory file: key=value lines, one per entry. On a host build (against the emulator)
 * the library uses it under $KARST_ROOT. */
#define INVENTORY_FILE "/tmp/inventory.txt"

/* Reads value name into buffer (size bytes; 0 means room for 100) and caches it in the
 * inventory file. A BIOS value holding "Rev" is corrected to "Ver" (in buffer, the secure world
 * and the file). While no session can be opened the value comes from the inventory file
 * (read_config's result). */
KARST_API int pta20_inventory_get(const char *name, char *buffer, uint32_t size);
/* Stores size bytes of data (a null data: size zero bytes) under name: first in the inventory
 * file, then in the secure world. -1 when the secure world was not updated. */
KARST_API int pta20_inventory_set(const char *name, const char *data, uint32_t size);

/* Bodies of the calls above; they need the open session. With a null out the value is printed
 * as name=value. */
KARST_API int _pta_invoke_inventory_get(const char *name, char *out, uint32_t size);
KARST_API int _pta_invoke_inventory_set(const char *name, const char *data, uint32_t size);
/* Dispatcher entries 8 and 9: text is a name (the value is printed), or name=value (split in
 * place; the value is sent with its terminating zero). */
KARST_API int pta_invoke_inventory_get(uint32_t number, char *text);
KARST_API int pta_invoke_inventory_set(uint32_t number, char *text);

/* Key=value files under whole-file record locks (readers shared, the writer exclusive).
 * read_config copies the value of the first entry with this key into out, cut to out_size - 1
 * characters and terminated; 0 when found, -1 otherwise.
 * write_config makes the file hold key=value; value_size counts the value's terminating zero
 * (a null value or size 0: the empty value). Rewrites only from the first changed entry on. A
 * missing file is created empty and -1 returned; the next call writes the entry. A key that no
 * line can hold (over 63 characters, or with "=", an apostrophe or a line end) gives -1. */
KARST_API int read_config(const char *path, const char *key, char *out, uint32_t out_size);
KARST_API int write_config(const char *path, const char *key, const char *value,
                           uint32_t value_size);

/* Imports a firmware inventory file of key=value lines: every value the secure world does not
 * already hold is written to it. -1 when the file cannot be opened, locked or unlocked, or the
 * session cannot be opened. */
KARST_API int pta20_import_fw_invt_tavo(const char *path);

/* ---------------------------------------------------------------------------------------------
 * Secure registers.
 */

/* Reads and prints count (at most 64) consecutive 32-bit registers from the hexadecimal address
 * in address_text; out (optional) receives the first value. */
KARST_API int pta20_memreg_get(const char *address_text, uint32_t count, uint32_t *out);
/* Body of the call above (count at most 8192); needs the open session. */
KARST_API int _pta_invoke_memreg_get(const char *address_text, uint32_t count, uint32_t *out);
/* Dispatcher entry 18: word 4 the address text, word 3 the count. */
KARST_API int pta_invoke_memreg_get(uint32_t number, const char *address_text, uint32_t count);

/* ---------------------------------------------------------------------------------------------
 * Attestation.
 *
 * A nonce is 1 to 64 letters, digits, '-' or '_'; anything else is refused with a message and -1
 * before any command runs or any file is touched. The attestation dump writes its result to
 * "/tmp/attestation/attd_<digest info>_<nonce>.bin".
 */

/* Attestation dump for nonce: gathers the REE data archive, the SPDM evidence and root CAs into
 * an attestation data block, has the secure world sign it, and writes the 66,560-byte result
 * file. Its path goes to path_buf when path_buf_size exceeds the path's length. */
KARST_API int pta20_att_dump(const char *nonce, char *path_buf, uint32_t path_buf_size);
/* Dispatcher entry 12: the dump's evidence gathering and files. -1 when it stops before the
 * secure world is asked, else the result of _pta_invoke_att_dump(). */
KARST_API int pta_invoke_att_dump(uint32_t command, const char *nonce, char *path_buf,
                                  uint32_t path_buf_size);
/* The dump's command (ID 12): block may be null with block_len 0. Returns 0, -1 or a TEE code. */
KARST_API int _pta_invoke_att_dump(uint32_t command, const char *nonce, const void *block,
                                   uint32_t block_len, char *path_buf, uint32_t path_buf_size);

/* The SPDM root CA certificates stored with every dump: the file of entry i of root_ca_files (a
 * board path, under the run root on a host) is stored under the data block key entry i of
 * root_ca_keys. The library only reads these tables. */
KARST_API extern const char *root_ca_files[2];
KARST_API extern const char *root_ca_keys[2];

/* Dispatcher entry 16: fetches the secure world's data block of type (0 to 3), value and name
 * into "/tmp/datablk.bin" (65,536 bytes). Returns 0, -1 or a TEE code. */
KARST_API int pta_invoke_blk_get(uint32_t command, uint32_t type, uint32_t value,
                                 const char *name);

/* Certificate of index cert_index: 4, 2, 1, 0 pick the first to fourth certificate of the
 * device's chain (root first), 5 the secure world's single certificate object whole; 3 is not
 * available. *size holds buf's size on entry and the certificate's length on success. */
KARST_API int pta20_get_cert(int32_t cert_index, uint8_t *buf, uint32_t *size);
/* Dispatcher entry 34: as above, returning 0 or a TEE code (buf is cleared first). */
KARST_API int pta_invoke_dalu_get_certificate(uint32_t command, int32_t cert_index, uint8_t *buf,
                                              uint32_t *size);

/* Provisioning question number query: 0 for yes, -1 for no or a failure. */
KARST_API int pta20_prov_query(uint32_t query);
/* Dispatcher entry 22: buf and len may be null and 0 (a 64-byte buffer of its own is used);
 * a caller's buffer receives the secure world's answer. 0 for yes, -1 otherwise. */
KARST_API int pta_invoke_prov_query(uint32_t command, uint32_t query, uint8_t *buf, uint32_t len);
/* The query's command: 0, -1 or the TEE code of a failed registration or command. */
KARST_API int _pta_invoke_prov_query(uint32_t command, uint32_t query, uint8_t *buf,
                                     uint32_t len);

/* Hands the signed RA data of an archive (path, or "/nv1/ra_data.tgz" when null) back to the
 * secure world. Returns 0, 0xFFFF6131 when the secure world rejected the data, or -1. */
KARST_API int pta20_ra_refresh(const char *path, uint32_t capacity);
/* Dispatcher entry 26 and the refresh's body: 0, -1, 0xFFFF0001 when there is no archive, or
 * the secure world's code. */
KARST_API int pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t capacity);
KARST_API int _pta_invoke_ra_refresh(uint32_t command, const char *path, uint32_t capacity);

/* ---------------------------------------------------------------------------------------------
 * Certificates and signing.
 */

/* Replaces certificate index (1 to 5) with the certificate file at path, sent under the key
 * "Systems/1/Certificates/<index>" (command 11). option is passed to the secure world as is. */
KARST_API int pta20_crt_replace(uint32_t index, const char *path, uint32_t option);
/* Sends len bytes of the caller's data unchanged as the payload for the certificate at uri (31
 * characters at most; null: "Systems/1/Certificates/0"), with command 11 (_crt_) or 27
 * (_ra_crt_, which also archives the answer as pta_invoke_replace_ra_crt does). */
KARST_API int pta20_crt_replace_import(const char *uri, const void *data, uint32_t len,
                                       uint32_t option);
KARST_API int pta20_ra_crt_replace_import(const char *uri, const void *data, uint32_t len,
                                          uint32_t option);
/* Bodies of the import calls; they need the open session. */
KARST_API int pta_invoke_replace_crt_import(const char *uri, const void *data, uint32_t len,
                                            uint32_t option);
KARST_API int pta_invoke_replace_ra_crt_import(const char *uri, const void *data, uint32_t len,
                                               uint32_t option);
/* Dispatcher entries 11 and 27. Either a file (data null, len 0), packed into a certificate
 * data block, or the caller's bytes (file null, len > 0). The RA form also sends "RA_TID" from
 * /tmp/attestation/ra_uid and archives the secure world's answer as /nv1/ra_data.tgz. */
KARST_API int pta_invoke_replace_crt(uint32_t cmd, uint32_t index, const char *uri, uint32_t option,
                                     const char *file, const void *data, uint32_t len);
KARST_API int pta_invoke_replace_ra_crt(uint32_t cmd, uint32_t index, const char *uri,
                                        uint32_t option, const char *file, const void *data,
                                        uint32_t len);

/* Has the secure world make a certificate signing request from len input bytes and writes it
 * to out_path (command 13). */
KARST_API int pta20_gen_csr_import(const char *out_path, const void *data, uint32_t len);
/* Body of the call above; the result of pta_invoke_gen_csr. */
KARST_API int pta_invoke_gen_csr_import(const char *out_path, const void *data, uint32_t len);
/* Dispatcher entry 13: input from in_path (data null, len 0) or from data. Returns 0, -1, or
 * the TEE result code when the secure world refuses. */
KARST_API int pta_invoke_gen_csr(uint32_t cmd, const char *out_path, const void *data, uint32_t len,
                                 const char *in_path);

/* Dispatcher entry 14: signs the file at path and writes the signature to "<path>.sig" (cut to
 * 63 characters). 0, -1, or the TEE result code. */
KARST_API int pta_invoke_att_sign(uint32_t cmd, uint32_t option, const char *path);
/* Dispatcher entry 15: args is "data-path:signature-path" (split in place). 0 when the
 * signature holds, -1, or the TEE result code. */
KARST_API int pta_invoke_att_verify(uint32_t cmd, char *args);
/* Dispatcher entry 24: 0 or the TEE result code. */
KARST_API int pta_invoke_att_validate(uint32_t cmd, uint32_t value);
/* Dispatcher entry 17: has the secure world verify the block file at path. 0, -1, or the TEE
 * result code. */
KARST_API int pta_invoke_blk_verify(uint32_t cmd, const char *path);

#define PTA20_ATT_VALIDATE_NOT_FOUND (-40654) /* the secure world answered 0xFFFF0008 */
#define PTA20_ATT_VALIDATE_REJECTED (-40655)  /* the secure world answered 0xFFFF3074 */
/* Attestation security validation of value (command 24): 0, one of the two numbers above, or
 * -1 for any other failure. */
KARST_API int pta20_att_security_validate(uint32_t value);

/* Certificate authentication (command 30): 0 accepted, 1 refused by the secure world, -1 local
 * failure (a null buffer or zero length included). */
KARST_API int _pta_invoke_auth_certs(uint32_t cmd, const void *first, uint32_t first_len,
                                     const void *second, uint32_t second_len);
/* Dispatcher entry 30: the two buffers read from files. */
KARST_API int pta_invoke_auth_certs(uint32_t cmd, const char *first_path, const char *second_path);
/* words: first buffer, first length, second buffer, second length (pointer-width words). */
KARST_API int pta20_auth_certs(const uintptr_t *words);

/* ---------------------------------------------------------------------------------------------
 * OTP keys, OTP user area and the board serial number. Not reached through the dispatcher:
 * callers pass the command ID (20, 21, 23).
 */

/* Bodies; they need the open session. The caller's memory is registered as it is. */
KARST_API int __pta_invoke_otp_get_key(uint32_t cmd, uint32_t key_id, void *buf, uint32_t size);
KARST_API int __pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data, uint32_t len);
/* *out_word is set to 0 first. 0, -1, or the TEE result code. */
KARST_API int _pta_invoke_board_sn_get(uint32_t cmd, uint32_t *out_word, void *buf, uint32_t size);
/* The same, each in a session of its own; 0 or -1. */
KARST_API int pta_invoke_otp_get_key(uint32_t cmd, uint32_t key_id, void *buf, uint32_t size);
KARST_API int pta_invoke_otp_prog_usr(uint32_t cmd, uint32_t offset, void *data, uint32_t len);
KARST_API int pta_invoke_otp_get_board_sn(uint32_t cmd, uint32_t *out_word, void *buf,
                                          uint32_t size);
/* Reads the board serial number into buf (size bytes) with command 23. */
KARST_API int pta20_otp_board_sn_get(uint32_t *out_word, void *buf, uint32_t size);

/* The otp tool: sub-commands "version", "read", "getkey", "prog_usr", "getsn". */
typedef int32_t (*otp_handler)(int32_t argc, char **argv);
typedef struct {
    const char *name;
    otp_handler handler;
} otp_command;
#define OTP_COMMAND_COUNT 5
KARST_API extern const otp_command cmd_otp[OTP_COMMAND_COUNT];

/* argv[0] names the sub-command (the program's own name left out). Always returns 0. */
KARST_API int32_t otp_main(int32_t argc, char **argv);
/* Runs the sub-command named by argv[0] with the words after it; -1 (and the usage text) for
 * an unknown one. */
KARST_API int32_t pta_invoke_cmd_otp(int32_t argc, char **argv);
/* Prints the usage text; returns -1. */
KARST_API int32_t usage(void);
/* Handlers: argv holds the operands after the sub-command's name. */
KARST_API int32_t otp_ver(int32_t argc, char **argv);
KARST_API int32_t otp_read(int32_t argc, char **argv);
KARST_API int32_t otp_get_key(int32_t argc, char **argv);
KARST_API int32_t otp_prog_usr(int32_t argc, char **argv);
KARST_API int32_t otp_get_sn(int32_t argc, char **argv);

#ifdef __cplusplus
}
#endif

#endif /* KARST_H */
