// SPDX-License-Identifier: Apache-2.0
// U-Boot environment: get (4) and set (5). Names are texts without "="; values are texts. A get
// answers the value with its terminating zero; an empty value clears the variable.
#include "application.hpp"
#include "kv_store.hpp"

namespace karst::emu {
namespace {

const std::map<std::string, std::string> &default_environment() {
    static const std::map<std::string, std::string> env = {
        {"baudrate", "115200"},
        {"bootargs", "console=ttyS4,115200n8 root=/dev/ram rw"},
        {"bootcmd", "bootm 20080000"},
        {"bootdelay", "2"},
    };
    return env;
}

bool valid_name(const std::string &name) {
    return !name.empty() && name.find('=') == std::string::npos;
}

} // namespace

TEEC_Result ubootenv_get(Params &params) {
    std::string name;
    if (!params.are(Kind::mem_in, Kind::mem_out) || !params[0].text(name) || !valid_name(name)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore env("ubootenv");
    if (!env.load(default_environment())) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    const auto value = env.get(name);
    if (!value) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    return params[1].put(value->c_str(), value->size() + 1);
}

TEEC_Result ubootenv_set(Params &params) {
    std::string name, value;
    if (!params.are(Kind::mem_in, Kind::mem_in) || !params[0].text(name) || !valid_name(name) ||
        !params[1].text(value)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore env("ubootenv");
    if (!env.load(default_environment())) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    if (value.empty()) {
        env.erase(name);
    } else {
        env.set(name, value);
    }
    return env.save() ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

} // namespace karst::emu
