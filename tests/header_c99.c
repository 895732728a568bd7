/* SPDX-License-Identifier: Apache-2.0 */
// The exported header as a C99 program sees it.
#include <karst.h>

#if !defined(__STDC_VERSION__) || __STDC_VERSION__ != 199901L
#error "this file must be compiled as C99"
#endif

int karst_c99_probe(void);

// The argument block, the exported data, the otp table through its handler type, the image types
// and a few calls, to be sure they link from C.
int karst_c99_probe(void) {
    uintptr_t block[PTA20_ARGS_WORDS] = {0};
    unsigned char blk[64];
    img_update_ctx ctx = {0};
    sig_block blocks[SIGTBL_MAX_ENTRIES];
    sig_entry sigs[SIGTBL_MAX_ENTRIES];
    otp_handler first = cmd_otp[0].handler;
    pta20_args(block, 1, 2, 3, 4, 5, 6);
    cmd_args = 0;
    ctx.img = IMG_ID(IMG_TYPE_EROTMCU, IMG_IDX_STAGING);
    if (pta20_datablk_create(DATABLK_MAGIC_ATT, blk, sizeof blk) != 0 || first == 0 ||
        cmd_otp[OTP_COMMAND_COUNT - 1].name == 0 || ctx.img != 0x1701u ||
        sizeof blocks[0].flag != 1 || sizeof sigs[0].flag != 1 ||
        pta20_img_updprogress(&ctx) != 0) {
        return -1;
    }
    return (int)block[3] + (int)PTA_DALU_CMD_GET_CERTIFICATE + pta_invoke_test_cmd(0, 0) +
           pta20_datablk_get_info(blk, DATABLK_INFO_USED_LEN);
}
