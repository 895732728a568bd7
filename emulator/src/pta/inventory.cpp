// SPDX-License-Identifier: Apache-2.0
// Inventory: get (8) and set (9). Values are kept as the bytes that were set (a terminating
// zero included when the caller sent one), in the state file "inventory".
//
// A get whose value does not fit the caller's memory answers success with the value's size and
// writes nothing, as the board's application does; the caller then finds the size larger than
// its buffer.
#include "application.hpp"
#include "kv_store.hpp"

namespace karst::emu {
namespace {

constexpr const char *INVENTORY_STATE = "inventory";

bool valid_name(const std::string &name) {
    return !name.empty();
}

// A get or a set: the name from parameter 0 (parameter 1 of kind value) and the inventory,
// loaded; result says whether both are there.
struct Request {
    std::string name;
    KvStore inventory{INVENTORY_STATE};
    TEEC_Result result = TEEC_SUCCESS;
};

Request request_of(Params &params, Kind value) {
    Request request;
    if (!params.are(Kind::mem_in, value) || !params[0].text(request.name) ||
        !valid_name(request.name)) {
        request.result = TEEC_ERROR_BAD_PARAMETERS;
    } else if (!request.inventory.load()) {
        request.result = TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    return request;
}

} // namespace

TEEC_Result inventory_get(Params &params) {
    const Request request = request_of(params, Kind::mem_out);
    if (request.result != TEEC_SUCCESS) {
        return request.result;
    }
    const auto value = request.inventory.get(request.name);
    if (!value) {
        return TEEC_ERROR_ITEM_NOT_FOUND;
    }
    if (value->size() > params[1].memory.size()) {
        params[1].reported = value->size();
        return TEEC_SUCCESS;
    }
    return params[1].put(*value);
}

TEEC_Result inventory_set(Params &params) {
    Request request = request_of(params, Kind::mem_in);
    if (request.result != TEEC_SUCCESS) {
        return request.result;
    }
    const auto &bytes = params[1].memory;
    request.inventory.set(request.name,
                          std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
    return request.inventory.save() ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

} // namespace karst::emu
