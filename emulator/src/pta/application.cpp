// SPDX-License-Identifier: Apache-2.0
#include "application.hpp"

#include "karst.h"

#include <array>
#include <cstring>

namespace karst::emu {
namespace {

constexpr TEEC_UUID APPLICATION_UUID = {
    0xCCF5BD24, 0xE290, 0x468E, {0x81, 0x12, 0xFD, 0x09, 0x96, 0xC4, 0xA8, 0xDF}};

constexpr uint32_t COMMAND_COUNT = PTA_DALU_CMD_GET_CERTIFICATE + 1;

// Command IDs as the application numbers them.
constexpr std::array<CommandHandler, COMMAND_COUNT> HANDLERS = [] {
    std::array<CommandHandler, COMMAND_COUNT> t{};
    t[PTA_DALU_CMD_UBOOTENV_GET] = ubootenv_get;
    t[PTA_DALU_CMD_UBOOTENV_SET] = ubootenv_set;
    t[PTA_DALU_CMD_FW_AUTH] = image_auth;
    t[PTA_DALU_CMD_FW_UPLOAD] = image_upload;
    t[PTA_DALU_CMD_FW_UPDATE] = image_update;
    t[PTA_DALU_CMD_FW_DUMP] = image_dump;
    t[PTA_DALU_CMD_FW_DELETE] = image_delete;
    t[PTA_DALU_CMD_FW_AUTH_DBLK] = image_auth_dblk;
    t[PTA_DALU_CMD_CPLD_REGR] = cpld_read;
    t[PTA_DALU_CMD_CPLD_REGW] = cpld_write;
    t[PTA_DALU_CMD_FPGA_READY] = fpga_ready;
    t[PTA_DALU_CMD_INVENTORY_GET] = inventory_get;
    t[PTA_DALU_CMD_INVENTORY_SET] = inventory_set;
    t[PTA_DALU_CMD_MEMREG_GET] = memreg_get;
    t[PTA_DALU_CMD_ATT_DUMP] = att_dump;
    t[PTA_DALU_CMD_BLK_GET] = blk_get;
    t[PTA_DALU_CMD_PROV_QUERY] = prov_query;
    t[PTA_DALU_CMD_RA_REFRESH] = ra_refresh;
    t[PTA_DALU_CMD_GET_CERTIFICATE] = get_certificate;
    t[PTA_DALU_CMD_REPLACE_CRT] = replace_crt;
    t[PTA_DALU_CMD_GEN_CSR] = gen_csr;
    t[PTA_DALU_CMD_ATT_SIGN] = att_sign;
    t[PTA_DALU_CMD_ATT_VERIFY] = att_verify;
    t[PTA_DALU_CMD_BLK_VERIFY] = blk_verify;
    t[PTA_DALU_CMD_OTP_GET_KEY] = otp_get_key;
    t[PTA_DALU_CMD_OTP_PROG_USR] = otp_prog_usr;
    t[PTA_DALU_CMD_BOARD_SN_GET] = board_sn_get;
    t[PTA_DALU_CMD_ATT_VALIDATE] = att_validate;
    t[PTA_DALU_CMD_REPLACE_RA_CRT] = replace_ra_crt;
    t[PTA_DALU_CMD_AUTH_CERTS] = auth_certs;
    return t;
}();

} // namespace

bool is_application(const TEEC_UUID &uuid) {
    return uuid.timeLow == APPLICATION_UUID.timeLow && uuid.timeMid == APPLICATION_UUID.timeMid &&
           uuid.timeHiAndVersion == APPLICATION_UUID.timeHiAndVersion &&
           std::memcmp(uuid.clockSeqAndNode, APPLICATION_UUID.clockSeqAndNode, 8) == 0;
}

TEEC_Result application_invoke(uint32_t command, Params &params) {
    if (command >= COMMAND_COUNT || HANDLERS[command] == nullptr) {
        return TEEC_ERROR_NOT_SUPPORTED;
    }
    return HANDLERS[command](params);
}

} // namespace karst::emu
