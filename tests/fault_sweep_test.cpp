// Every acquisition of every call, failed in turn: the file helpers, the key=value files, the
// U-Boot environment, the CPLD registers, the inventory, the secure registers and the dispatcher.
#include "support/fault_sweep.hpp"
#include "support/sweep_session.hpp"
#include "support/test_env.hpp"

#include <cstdlib>
#include <cstring>

using namespace karst::test;

namespace {

class FaultSweepTest : public KarstTest {};

TEST_F(FaultSweepTest, FilesAndKeyValueFiles) {
    const std::string file = path("/tmp/sweep.bin");
    const std::string config = path("/tmp/sweep.conf");
    const std::string legacy = path("/tmp/fw_inventory.txt");
    write_file(file, std::string(3000, 'x'));
    write_file(config, "first=1\nsecond=2\nthird=3\n");
    write_file(legacy, "BIOS_VER=1.2\nCPLD_VER=3\n");
    sweep_each({
        {.name = "writebin", .call = [&] { return writebin(file.c_str(), "abc", 3); }},
        {.name = "readbin",
         .call =
             [&] {
                 uint8_t *buf = nullptr;
                 uint32_t size = 0;
                 const int rc = readbin(file.c_str(), &buf, &size);
                 std::free(buf);
                 return rc;
             }},
        {.name = "read_config",
         .call =
             [&] {
                 char out[16];
                 return read_config(config.c_str(), "second", out, sizeof out);
             }},
        {.name = "write_config",
         .call = [&] { return write_config(config.c_str(), "first", "changed", 8); },
         .prepare = [&] { write_file(config, "first=1\nsecond=2\nthird=3\n"); }},
        {.name = "pta20_import_fw_invt_tavo",
         .call = [&] { return pta20_import_fw_invt_tavo(legacy.c_str()); },
         // A value that cannot be read or written is reported and the import goes on.
         .failure_results = {-1, 0},
         .expected_noise = R"(.*TEEC_InvokeCommand failed with code 0xffff0008 .*)"},
    });
}

TEST_F(FaultSweepTest, EnvironmentCpldInventoryAndRegisters) {
    char value[64];
    uint32_t word = 0;
    auto text = [](const char *s) {
        static char buf[64];
        std::strcpy(buf, s);
        return buf;
    };
    sweep_each({
        {.name = "pta20_ubootenv_get",
         .call = [&] { return pta20_ubootenv_get("bootdelay", value, sizeof value); }},
        {.name = "pta20_ubootenv_set", .call = [] { return pta20_ubootenv_set("bootdelay", "3"); }},
        {.name = "pta_invoke_ubootenv_get",
         .call =
             [&] {
                 return in_session([&] { return pta_invoke_ubootenv_get(4, text("bootdelay")); });
             }},
        {.name = "pta_invoke_ubootenv_set",
         .call =
             [&] {
                 return in_session([&] { return pta_invoke_ubootenv_set(5, text("bootdelay=4")); });
             }},
        {.name = "pta_invoke_cpld_regr",
         .call = [&] { return in_session([&] { return pta_invoke_cpld_regr(6, text("0x00")); }); }},
        {.name = "pta_invoke_cpld_regw",
         .call =
             [&] { return in_session([&] { return pta_invoke_cpld_regw(7, text("0x10=0x5")); }); }},
        // The inventory file is a cache: its failures do not fail the calls, nor does the
        // secure world's refusal of the "Rev" correction fail the read.
        {.name = "pta20_inventory_set",
         .call = [] { return pta20_inventory_set("BIOS_VER", "1.0", 4); },
         .failure_results = {-1, 0}},
        {.name = "pta20_inventory_get",
         .call = [&] { return pta20_inventory_get("BIOS_VER", value, sizeof value); },
         .failure_results = {-1, 0},
         .prepare = [] { capture_stdout([] { pta20_inventory_set("BIOS_VER", "Rev 1.0", 8); }); }},
        {.name = "pta_invoke_inventory_set",
         .call =
             [&] {
                 return in_session([&] { return pta_invoke_inventory_set(9, text("CPLD_VER=3")); });
             }},
        {.name = "pta_invoke_inventory_get",
         .call =
             [&] {
                 return in_session([&] { return pta_invoke_inventory_get(8, text("CPLD_VER")); });
             }},
        {.name = "pta20_memreg_get", .call = [&] { return pta20_memreg_get("1f0", 3, &word); }},
        {.name = "pta_invoke_memreg_get",
         .call = [&] { return in_session([&] { return pta_invoke_memreg_get(18, "1f0", 2); }); }},
        {.name = "pta_invoke_cmd",
         .call =
             [&] {
                 return in_session([&] {
                     uintptr_t block[PTA20_ARGS_WORDS];
                     pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text("bootdelay")), 0,
                                0);
                     return pta_invoke_cmd(PTA_DALU_CMD_UBOOTENV_GET, block);
                 });
             }},
    });
}

} // namespace
