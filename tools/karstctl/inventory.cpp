// inventory get|set|import: values the secure world keeps, cached in the inventory file.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <memory>

namespace karstctl {

namespace {

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
    get->add_option("name", opts->name, "Inventory key")->required();
    get->add_option("-o,--output", opts->output, "Write the value to this file instead");
    get->callback([opts] {
        auto value = std::make_unique<char[]>(VALUE_ROOM);
        check_call(pta20_inventory_get(opts->name.c_str(), value.get(), VALUE_ROOM),
                   "pta20_inventory_get");
        emit(opts->output, bounded_text(value.get(), VALUE_ROOM));
    });

    CLI::App *set =
        add_command(*inv, "set", "Store a value (in the inventory file, then the secure world)",
                    "  karstctl inventory set BMC_VERSION 2.10.1\n");
    set->add_option("name", opts->name, "Inventory key")->required();
    set->add_option("value", opts->value, "Value (stored with its terminating zero)")->required();
    set->callback([opts] {
        check_call(pta20_inventory_set(opts->name.c_str(), opts->value.c_str(),
                                       static_cast<uint32_t>(opts->value.size() + 1)),
                   "pta20_inventory_set");
    });

    CLI::App *import = add_command(
        *inv, "import", "Write every value of a KEY=VALUE file the secure world does not hold",
        "  karstctl inventory import fw_inventory.txt\n");
    import->add_option("file", opts->file, "File of KEY=VALUE lines")->required();
    import->callback([opts] {
        check_call(pta20_import_fw_invt_tavo(opts->file.c_str()), "pta20_import_fw_invt_tavo");
});
} // namespace karstctl

} // namespace karstctl
