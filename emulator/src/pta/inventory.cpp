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

} // namespace

TEEC_Result inventory_get(Params &params) {
    std::string name;
    if (!params.are(Kind::mem_in, Kind::mem_out) || !params[0].text(name) || !valid_name(name)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore inventory(INVENTORY_STATE);
    if (!inventory.load()) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    const auto value = inventory.get(name);
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
    std::string name;
    if (!params.are(Kind::mem_in, Kind::mem_in) || !params[0].text(name) || !valid_name(name)) {
        return TEEC_ERROR_BAD_PARAMETERS;
    }
    KvStore inventory(INVENTORY_STATE);
    if (!inventory.load()) {
        return TEEC_ERROR_STORAGE_NOT_AVAILABLE;
    }
    const auto &bytes = params[1].memory;
    inventory.set(name, std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
    return inventory.save() ? TEEC_SUCCESS : TEEC_ERROR_STORAGE_NOT_AVAILABLE;
}

} // namespace karst::emu
