/*
 * The demo's worker: one step of the tour per run, so that each step is a process of its own,
 * as the controller's programs are.
 *
 *   karst_demo env-set NAME VALUE   set a U-Boot variable
 *   karst_demo env-get NAME         read it back and print NAME=VALUE
 *   karst_demo img-upload           upload the BIOS staging image
 *   karst_demo img-update           update the BIOS from its staging image on a background
 *                                   thread, with backup and evidence dumps first, and show the
 *                                   progress until the update ends
 *   karst_demo img-dump-bmc         dump the active BMC image to /tmp/fw_image
 *   karst_demo inv-set NAME VALUE   store an inventory value (secure world and inventory file)
 *   karst_demo inv-get NAME         read an inventory value and print NAME=VALUE
 *   karst_demo fw-import FILE       import a firmware inventory file of NAME=VALUE lines
 *   karst_demo reg-get ADDR COUNT   read COUNT secure registers from the hexadecimal ADDR
 *   karst_demo att-dump NONCE       attestation dump for NONCE; prints the result file's path
 *   karst_demo cert-get INDEX FILE  writes certificate INDEX (4, 2, 1, 0: root first; 5: the
 *                                   single object) to FILE
 *   karst_demo csr SUBJECT OUT      have the secure world make a CSR for SUBJECT, into OUT
 *   karst_demo sign FILE            sign FILE in the secure world, into FILE.sig
 *   karst_demo verify FILE SIG      have the secure world check SIG against FILE
 */
#include <karst.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int demo_usage(void) {
    fprintf(stderr, "usage: karst_demo env-set NAME VALUE | env-get NAME | inv-set NAME VALUE |"
                    " inv-get NAME | fw-import FILE | reg-get ADDR COUNT | att-dump NONCE |"
                    " cert-get INDEX FILE | csr SUBJECT OUT | sign FILE | verify FILE SIG |"
                    " img-upload | img-update | img-dump-bmc\n");
    return 2;
}

static int att_dump(const char *nonce) {
    char path[512];
    if (pta20_att_dump(nonce, path, sizeof path) != 0) {
        return 1;
    }
    printf("%s\n", path);
    return 0;
}

static int cert_get(const char *index, const char *file) {
    static uint8_t cert[16384];
    uint32_t size = sizeof cert;
    FILE *out;
    if (pta20_get_cert((int32_t)atoi(index), cert, &size) != 0) {
        return 1;
    }
    out = fopen(file, "wb");
    if (out == NULL || fwrite(cert, 1, size, out) != size) {
        if (out != NULL) {
            fclose(out);
        }
        return 1;
    }
    return fclose(out) == 0 ? 0 : 1;
}

/* Runs one dispatcher number with words 1, 4 and 5 in a session of its own. */
static int dispatch(uint32_t number, uintptr_t word1, const char *word4) {
    uintptr_t block[PTA20_ARGS_WORDS];
    int rc;
    if (pta_open_session() != 0) {
        return -1;
    }
    pta20_args(block, 0, word1, 0, (uintptr_t)word4, 0, 0);
    rc = pta_invoke_cmd(number, block);
    pta_close_session();
    return rc;
}

static int csr(const char *subject, const char *out) {
    if (pta20_gen_csr_import(out, subject, (uint32_t)strlen(subject)) != 0) {
        return 1;
    }
    printf("CSR written to %s\n", out);
    return 0;
}

static int sign(const char *file) {
    if (dispatch(PTA_DALU_CMD_ATT_SIGN, 0, file) != 0) {
        return 1;
    }
    printf("signature written to %s.sig\n", file);
    return 0;
}

static int verify(const char *file, const char *sig) {
    size_t n = strlen(file) + strlen(sig) + 2;
    char *args = malloc(n);
    int rc;
    if (args == NULL) {
        return 1;
    }
    snprintf(args, n, "%s:%s", file, sig);
    rc = dispatch(PTA_DALU_CMD_ATT_VERIFY, 0, args);
    free(args);
    printf("%s\n", rc == 0 ? "signature good" : "signature REJECTED");
    return rc == 0 ? 0 : 1;
}

static void pause_ms(long ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

/* The progress as a bar on a terminal, as plain lines otherwise. */
static void show_progress(int percent, int on_terminal) {
    if (on_terminal) {
        char bar[51];
        int filled = percent / 2, i;
        for (i = 0; i < 50; ++i) {
            bar[i] = i < filled ? '#' : '.';
        }
        bar[50] = '\0';
        printf("\r  [%s] %3d%%", bar, percent);
    } else {
        printf("  progress: %d%%\n", percent);
    }
    fflush(stdout);
}

static int image_update(void) {
    img_update_ctx ctx;
    int last = -1, on_terminal = isatty(STDOUT_FILENO);
    memset(&ctx, 0, sizeof ctx);
    ctx.img = IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING);
    ctx.flags = IMG_SRC_TABLE | IMG_FLAG_BACKUP | IMG_FLAG_EVIDENCE;
    if (pta20_img_update_async(&ctx) != 0) {
        return 1;
    }
    /* The update thread writes ctx.state; its end shows there, not in the percentage. */
    while (__atomic_load_n(&ctx.state, __ATOMIC_SEQ_CST) >= IMG_UPD_QUEUED) {
        int p = pta20_img_updprogress(&ctx);
        if (p != last) {
            show_progress(p, on_terminal);
            last = p;
        }
        pause_ms(100);
    }
    if (on_terminal) {
        printf("\n");
    }
    printf("update %s (state %d, last progress %d%%)\n",
           ctx.state == IMG_UPD_IDLE ? "succeeded" : "failed", (int)ctx.state, (int)ctx.progress);
    return ctx.state == IMG_UPD_IDLE ? 0 : 1;
}

int main(int argc, char **argv) {
    if (argc == 4 && strcmp(argv[1], "env-set") == 0) {
        return pta20_ubootenv_set(argv[2], argv[3]) == 0 ? 0 : 1;
    }
    if (argc == 3 && strcmp(argv[1], "env-get") == 0) {
        static char value[32768];
        if (pta20_ubootenv_get(argv[2], value, sizeof value) != 0) {
            return 1;
        }
        printf("%s=%s\n", argv[2], value);
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "img-upload") == 0) {
        int rc = pta20_img_upload(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), IMG_SRC_TABLE, NULL, 0);
        printf("upload: %d\n", rc);
        return rc == 0 ? 0 : 1;
    }
    if (argc == 2 && strcmp(argv[1], "img-update") == 0) {
        return image_update();
    }
    if (argc == 2 && strcmp(argv[1], "img-dump-bmc") == 0) {
        return pta20_img_dump(IMG_ID(IMG_TYPE_BMC, IMG_IDX_ACTIVE), 0, NULL, 0) == 0 ? 0 : 1;
    }
    if (argc == 4 && strcmp(argv[1], "inv-set") == 0) {
        return pta20_inventory_set(argv[2], argv[3], (uint32_t)strlen(argv[3]) + 1) == 0 ? 0 : 1;
    }
    if (argc == 3 && strcmp(argv[1], "inv-get") == 0) {
        char value[512] = {0};
        if (pta20_inventory_get(argv[2], value, sizeof value) != 0) {
            return 1;
        }
        printf("%s=%s\n", argv[2], value);
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "fw-import") == 0) {
        return pta20_import_fw_invt_tavo(argv[2]) == 0 ? 0 : 1;
    }
    if (argc == 4 && strcmp(argv[1], "reg-get") == 0) {
        uint32_t first = 0;
        if (pta20_memreg_get(argv[2], (uint32_t)strtoul(argv[3], NULL, 10), &first) != 0) {
            return 1;
        }
        printf("first value: 0x%08x\n", (unsigned)first);
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "att-dump") == 0) {
        return att_dump(argv[2]);
    }
    if (argc == 4 && strcmp(argv[1], "cert-get") == 0) {
        return cert_get(argv[2], argv[3]);
    }
    if (argc == 4 && strcmp(argv[1], "csr") == 0) {
        return csr(argv[2], argv[3]);
    }
    if (argc == 3 && strcmp(argv[1], "sign") == 0) {
        return sign(argv[2]);
    }
    if (argc == 4 && strcmp(argv[1], "verify") == 0) {
        return verify(argv[2], argv[3]);
    }
    return demo_usage();
}
