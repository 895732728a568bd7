// SPDX-License-Identifier: Apache-2.0
// Data block retrieval (16). Type 0 to 3 in value a, a number in value b, a name (1 to 255
// bytes) in parameter 1. The block answered is the text "KARST-BLOCK v1\n", "type=<a>\n",
// "value=<b>\n", "name=<name>\n"; a name beginning with "missing" answers
// TEEC_ERROR_ITEM_NOT_FOUND, a type above 3 or an empty or longer name
// TEEC_ERROR_BAD_PARAMETERS.
#include "application.hpp"

#include <string>

namespace karst::emu {
namespace {

constexpr uint32_t TYPE_LAST = 3;
constexpr size_t NAME_MAX = 255;

} // namespace

TEEC_Result blk_get(Params &params) {
    if (!params.are(Kind::value_in, Kind::mem_in, Kind::mem_inout)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    const uint32_t type = params[0].value.a;
    const std::string name(params[1].memory.begin(), params[1].memory.end());
    if (type > TYPE_LAST || name.empty() || name.size() > NAME_MAX) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    if (name.starts_with("missing")) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    const std::string block = "KARST-BLOCK v1\ntype=" + std::to_string(type) +
                              "\nvalue=" + std::to_string(params[0].value.b) + "\nname=" + name +
                              "\n";
    return params[2].put(block);
}

} // namespace karst::emu
