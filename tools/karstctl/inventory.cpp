// SPDX-License-Identifier: Apache-2.0
// inventory get|set|import: values the secure world keeps, cached in the inventory file.
#include "common.hpp"
#include "families.hpp"
#include "stores.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

// What inventory get reads a value into; inventory set takes no value it could not read back.
constexpr uint32_t VALUE_ROOM = 4096;

struct InventoryOptions {
    std::string name;
    std::string value;
    std::string file;
    std::string output;
};

} // namespace

void add_inventory(CLI::App &app) {
    auto opts = std::make_shared<InventoryOptions>();
    CLI::App *inv = add_group(app, "inventory", "Read, set and import inventory values",
                              "  karstctl inventory get BIOS_VERSION\n"
                              "  karstctl inventory set BMC_VERSION 2.10.1\n"
                              "  karstctl inventory import /nv1/fw_inventory.txt\n");

    CLI::App *get =
        add_command(*inv, "get", "Print a value (a BIOS value holding 'Rev' is corrected to 'Ver')",
                    "  karstctl inventory get BIOS_VERSION\n"
                    "  karstctl inventory get BIOS_VERSION -o bios.txt\n");
    add_store_name(*get, opts->name, "Inventory key");
    add_output(*get, opts->output, "Write the value (without a line end) to this file instead");
    get->callback([opts] {
        auto value = std::make_unique<char[]>(VALUE_ROOM);
        run_call("pta20_inventory_get",
                 [&] { return pta20_inventory_get(opts->name.c_str(), value.get(), VALUE_ROOM); });
        emit(opts->output, bounded_text(value.get(), VALUE_ROOM));
    });

    CLI::App *set =
        add_command(*inv, "set", "Store a value (in the inventory file, then the secure world)",
                    "  karstctl inventory set BMC_VERSION 2.10.1\n");
    add_store_name(*set, opts->name, "Inventory key");
    add_store_value(*set, opts->value, "Value (stored with its terminating zero)", VALUE_ROOM,
                    true);
    set->callback([opts] {
        run_call("pta20_inventory_set", [&] {
            return pta20_inventory_set(opts->name.c_str(), opts->value.c_str(),
                                       static_cast<uint32_t>(opts->value.size() + 1));
        });
    });

    CLI::App *import = add_command(
        *inv, "import", "Write every value of a KEY=VALUE file the secure world does not hold",
        "  karstctl inventory import fw_inventory.txt\n");
    add_input_file(*import, "file", opts->file, "File of KEY=VALUE lines");
    import->callback([opts] {
        run_call("pta20_import_fw_invt_tavo",
                 [&] { return pta20_import_fw_invt_tavo(opts->file.c_str());
});
} // namespace karstctl
);
}

} // namespace karstctl
