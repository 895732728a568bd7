#include "application.hpp"

#include <array>
#include <cstring>

namespace karst::emu {
namespace {

constexpr TEEC_UUID APPLICATION_UUID = {
    0xCCF5BD24, 0xE290, 0x468E, {0x81, 0x12, 0xFD, 0x09, 0x96, 0xC4, 0xA8, 0xDF}};

constexpr uint32_t COMMAND_COUNT = 35;

// Command IDs as the application numbers them.
constexpr std::array<CommandHandler, COMMAND_COUNT> handlers = [] {
    std::array<CommandHandler, COMMAND_COUNT> t{};
    t[4] = ubootenv_get;
    t[5] = ubootenv_set;
    t[0] = image_auth;
    t[1] = image_upload;
    t[2] = image_update;
    t[3] = image_dump;
    t[10] = image_delete;
    t[31] = image_auth_dblk;
    t[6] = cpld_read;
    t[7] = cpld_write;
    t[25] = fpga_ready;
    t[8] = inventory_get;
    t[9] = inventory_set;
    t[18] = memreg_get;
    t[12] = att_dump;
    t[16] = blk_get;
    t[22] = prov_query;
    t[26] = ra_refresh;
    t[34] = get_certificate;
    t[11] = replace_crt;
    t[13] = gen_csr;
    t[14] = att_sign;
    t[15] = att_verify;
    t[17] = blk_verify;
    t[20] = otp_get_key;
    t[21] = otp_prog_usr;
    t[23] = board_sn_get;
    t[24] = att_validate;
    t[27] = replace_ra_crt;
    t[30] = auth_certs;
    return t;
}();

} // namespace

bool is_application(const TEEC_UUID &uuid) {
    return uuid.timeLow == APPLICATION_UUID.timeLow && uuid.timeMid == APPLICATION_UUID.timeMid &&
           uuid.timeHiAndVersion == APPLICATION_UUID.timeHiAndVersion &&
           std::memcmp(uuid.clockSeqAndNode, APPLICATION_UUID.clockSeqAndNode, 8) == 0;
}

TEEC_Result application_invoke(uint32_t command, Params &params) {
    if (command >= COMMAND_COUNT || handlers[command] == nullptr) {
        return TEEC_ERROR_NOT_SUPPORTED;
    }
    return handlers[command](params);
}

} // namespace karst::emu
