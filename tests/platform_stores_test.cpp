// SPDX-License-Identifier: Apache-2.0
// The board's stores and registers in the secure world from end to end: the U-Boot environment,
// the inventory (its file as cache and fallback, the BIOS "Rev" correction, the firmware
// inventory import), the CPLD registers, the BIOS address mode, the FPGA-ready command and the
// secure registers. What reaches the application is compared as text (see sent()); failures of
// each acquisition are the failure sweep's.
#include "support/call_text.hpp"

#include <cstring>

using namespace karst::test;

namespace {
// NOLINTBEGIN(readability-magic-numbers): the tests spell out the sizes and values they check.

// Runs a dispatcher number in a session of its own, with text in word 4 and count in word 3.
std::string dispatch(uint32_t number, std::string text, uintptr_t count = 0) {
    uintptr_t block[PTA20_ARGS_WORDS] = {};
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(text.data()), count, 0);
    EXPECT_EQ(pta_open_session(), 0u);
    std::string out = run([&] { return pta_invoke_cmd(number, block); });
    pta_close_session();
    return out;
}

int inventory_set(const std::string &name, const std::string &value) {
    return pta20_inventory_set(name.c_str(), value.c_str(),
                               static_cast<uint32_t>(value.size() + 1));
}

class PlatformTest : public KarstTest {
  protected:
    std::string inventory() const { return path("/tmp/inventory.txt"); }
};

TEST_F(PlatformTest, UbootEnvLimitsResultsAndArguments) {
    const std::string longest(1023, 'n'), too_long(1024, 'n'), big(32767, 'v');
    const std::string get = "_pta_invoke_ubootenv_get", set = "_pta_invoke_ubootenv_set";
    const std::string name_long = "Environment variable name too long";
    char buf[32];
    std::string back(32768, '\0');
    ASSERT_EQ(sum({pta20_ubootenv_set(longest.c_str(), "v"), pta20_ubootenv_set("big", big.c_str()),
                   pta20_ubootenv_set("ip", "10.100.200.254:8080"), // 19 characters
                   pta20_ubootenv_get("big", back.data(), 0)}),     // size 0: a value of any size
              0);
    std::memset(buf, '#', sizeof buf);
    sent();
    EXPECT_TRUE(matches(
        run([&] {
            return sum({pta20_ubootenv_get(nullptr, buf, 8), pta20_ubootenv_get("ip", nullptr, 8),
                        pta20_ubootenv_set(nullptr, "x"), pta20_ubootenv_set(too_long.c_str(), "v"),
                        pta20_ubootenv_get(too_long.c_str(), buf, 8),
                        pta20_ubootenv_set("big", (big + "v").c_str()),
                        pta20_ubootenv_get("ip", buf, 16)});
        }),
        "-7 " + invalid(R"(\(null\))", "0x[0-9a-f]+") + invalid("ip", R"(\(nil\))") +
            invalid(R"(\(null\))") + err(set, name_long) + err(get, name_long) +
            err(set, name_long) +
            err(get, R"(Buffer has less space \(16\) than actual data size \(20\))")));
    EXPECT_EQ(std::string(buf, 32) + std::to_string(std::strlen(back.c_str())),
              std::string(32, '#') + "32767");
    ASSERT_EQ(sum({pta20_ubootenv_get("ip", buf, 20), pta20_ubootenv_set("ip", nullptr)}), 0);
    EXPECT_STREQ(buf, "10.100.200.254:8080");
    EXPECT_EQ(sent(), (Sent{"4 cc; 1024 1 'ip'; 32768 2 ''", "4 cc; 1024 1 'ip'; 32768 2 ''",
                            "5 cc; 1024 1 'ip'; 32768 1 ''"}))
        << "only the reads reach the application; a null value is sent as an empty one";
}

TEST_F(PlatformTest, InventoryKeepsTheApplicationAndTheFileAndCorrectsBiosRev) {
    write_file(inventory(), ""); // as after any earlier call: the first write only creates it
    ASSERT_EQ(sum({inventory_set("CPLD_VER", "3"), inventory_set("BIOS_VERSION", "Rev 1.2a"),
                   inventory_set("CPLD_VERSION", "Rev 7"), inventory_set("BMC_VER", "2.10")}),
              0);
    EXPECT_EQ(sent().at(0), "9 cc; 1024 1 'CPLD_VER'; 2 1 '3'");
    char value[100] = {};
    const auto get = [&](const char *name, uint32_t size) {
        return cat({run([&] { return pta20_inventory_get(name, value, size); }), value});
    };
    // Only names with BIOS are corrected; size 0 reads 100 bytes and caches the empty value.
    EXPECT_EQ(cat({get("BIOS_VERSION", 64), get("CPLD_VERSION", 64), get("BMC_VER", 0)}),
              "0 'Rev' is detected, convert it to 'Ver'\nVer 1.2a0 Rev 70 2.10");
    EXPECT_EQ(
        sent(),
        (Sent{"8 cc; 1024 1 'BIOS_VERSION'; 64 2 ''", "9 cc; 1024 1 'BIOS_VERSION'; 9 1 'Ver 1.2a'",
              "8 cc; 1024 1 'CPLD_VERSION'; 64 2 ''", "8 cc; 1024 1 'BMC_VER'; 100 2 ''"}));
    EXPECT_EQ(read_file(inventory()),
              "CPLD_VER=3\nBIOS_VERSION=Ver 1.2a\nCPLD_VERSION=Rev 7\nBMC_VER=\n");
    // A size above what the command carries (32769 bytes) is refused before any buffer is taken.
    EXPECT_TRUE(
        matches(run([] { return inventory_set("BIG", std::string(32768, 'v')); }),
                "-1 " + err("_pta_invoke_inventory_set", "Environment variable name too long")));
}

TEST_F(PlatformTest, InventoryReadFallsBackToTheFileWithoutASession) {
    write_file(inventory(), "FRU_SERIAL=SN0042\n");
    char value[32] = {};
    SessionHolder holder; // another process holds the application
    ASSERT_TRUE(holder.holding());
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_inventory_get("FRU_SERIAL", value, 32), 0);
        EXPECT_STREQ(value, "SN0042");
        // Unknown names fail; a write updates the file though the application is out of reach.
        EXPECT_EQ(
            sum({pta20_inventory_get("NOT_THERE", value, 32), inventory_set("FRU_SERIAL", "SN0043"),
                 pta20_inventory_get("FRU_SERIAL", value, 32), std::remove(inventory().c_str()),
                 pta20_inventory_get("FRU_SERIAL", value, 32)}),
            -3);
    });
    EXPECT_STREQ(value, "SN0043");
    EXPECT_TRUE(matches(out, R"([\s\S]*\[read_config\] open .*/tmp/inventory.txt fail \n)"));
    EXPECT_EQ(sent(), Sent{});
    holder.release();

    // The dispatcher entries print, split and leave the file alone.
    write_file(inventory(), "");
    EXPECT_EQ(cat({dispatch(9, "=b="), dispatch(8, "b")}), "0 0 b=\n");
    EXPECT_EQ(sent(), (Sent{"9 cc; 1024 1 'b'; 0 1 ''", "8 cc; 1024 1 'b'; 100 2 ''"}));
    EXPECT_EQ(read_file(inventory()), "");
    EXPECT_TRUE(matches(dispatch(9, "abc"), "-1 " + err("pta_invoke_inventory_set",
                                                        "Argument must be in name=value format")));
}

TEST_F(PlatformTest, FwInventoryImportWritesOnlyDifferentValues) {
    const std::string legacy = path("/nv1/fw_inventory.txt");
    EXPECT_EQ(cat({dispatch(9, "BIOS_VER=1.2"), dispatch(9, "CPLD_VER=2"), dispatch(9, "EMPTIED=x"),
                   dispatch(9, "LONG=old"), dispatch(9, "HUGE=" + std::string(80, 'h'))}),
              "0 0 0 0 0 ");
    // Lines are taken as the inventory file takes them: "=SKIPPED" is no entry, values are cut.
    write_file(legacy, "BIOS_VER=1.2\nCPLD_VER=3\n=SKIPPED=1\nEMPTIED=\nLONG=" +
                           std::string(100, 'x') + "\nHUGE=small\nNEW=1\n");
    sent();
    const size_t opens = karst_emu_calls(KARST_EMU_OPEN);
    const auto import = [&] { return pta20_import_fw_invt_tavo(legacy.c_str()); };
    EXPECT_TRUE(matches(run(import),
                        "0 datablk and file FW invt value of key: BIOS_VER are the same.\n" +
                            err("_pta_invoke_inventory_get",
                                R"(Buffer has less space \(64\) than actual data size \(81\))") +
                            invoke_failed("_pta_invoke_inventory_get", "0xffff0008")));
    EXPECT_EQ(karst_emu_calls(KARST_EMU_OPEN), opens + 1) << "one session";
    EXPECT_EQ(sent(PTA_DALU_CMD_INVENTORY_SET),
              (Sent{"9 cc; 1024 1 'CPLD_VER'; 2 1 '3'", "9 cc; 1024 1 'EMPTIED'; 1 1 ''",
                    "9 cc; 1024 1 'LONG'; 64 1 '" + std::string(63, 'x') + "'",
                    "9 cc; 1024 1 'HUGE'; 6 1 'small'", "9 cc; 1024 1 'NEW'; 2 1 '1'"}));
    std::remove(legacy.c_str());
    EXPECT_EQ(run(import), "-1 [pta20_import_fw_invt_tavo] open " + legacy + " fail \n");
}

TEST_F(PlatformTest, CpldRegistersBiosAddressModeAndFpgaReady) {
    const uint32_t read = PTA_DALU_CMD_CPLD_REGR, write = PTA_DALU_CMD_CPLD_REGW;
    EXPECT_EQ(cat({dispatch(write, "0x1A=0xc3"), dispatch(read, "0x1A")}),
              "0 Write cpld reg[1a] = c3\n0 Read CPLD Reg[1A] = C3\n");
    EXPECT_EQ(sent(),
              (Sent{"7 cc; 1024 1 '\x1a'; 32768 1 '\xc3'", "6 cc; 1024 1 '\x1a'; 32768 2 ''"}));
    // Other bases, register 0 (the version, as the application keeps it), and a write split at
    // the first "=" after the name and cut to eight bits; texts without a name and a value.
    EXPECT_TRUE(matches(
        cat({dispatch(read, "032"), dispatch(read, "26"), dispatch(read, "zero"),
             dispatch(write, "0x1ff=0x100"), dispatch(write, "==5=7="), dispatch(write, "0x10"),
             dispatch(write, "0x10="), dispatch(write, "==="), dispatch(write, "")}),
        literal("0 Read CPLD Reg[1A] = C3\n0 Read CPLD Reg[1A] = C3\n0 Read CPLD Reg[00] = 12\n"
                "0 Write cpld reg[ff] = 00\n0 Write cpld reg[05] = 07\n") +
            "(-1 " + err("pta_invoke_cpld_regw", "Argument must be in name=value format") +
            "){4}"));
    EXPECT_EQ(sent().size(), 5u);
    // The BIOS flash's address mode: opcode 0xB7 enters 4-byte mode, 0xE9 leaves it.
    EXPECT_EQ(run([] {
                  return sum({pta20_bios_set4Byte(1), pta20_bios_set4Byte(0x100),
                              pta20_bios_set4Byte(0), pta20_fpga_ready()});
              }),
              "0 Write cpld reg[b7] = 00\nWrite cpld reg[b7] = 00\nWrite cpld reg[e9] = 00\n");
    EXPECT_EQ(sent(), (Sent{"7 cc; 1024 1 '\xb7'; 32768 1 ''", "7 cc; 1024 1 '\xb7'; 32768 1 ''",
                            "7 cc; 1024 1 '\xe9'; 32768 1 ''", "25 0"}));
}

// The lines of the register dump; the emulator's registers hold their address ^ 0x5EC0DE00.
std::string registers(uint32_t address, uint32_t count) {
    std::string out = "0 ";
    for (char text[96]; count-- > 0; address += 4) {
        std::snprintf(text, sizeof text,
                      "Read secure info from register addr:[%08x] --> value:[%08x]\n", address,
                      address ^ 0x5EC0DE00u);
        out += text;
    }
    return out;
}

TEST_F(PlatformTest, SecureRegistersArePrintedAndTheFirstHandedBack) {
    uint32_t first = 0;
    EXPECT_EQ(run([&] { return pta20_memreg_get("1f0", 3, &first); }), registers(0x1f0, 3));
    EXPECT_EQ(first, 0x1f0 ^ 0x5EC0DE00u);
    EXPECT_EQ(sent(), Sent{"18 cc1; 3,0; 1024 1 '\xf0\x01'; 32768 2 ''"});
    // Up to 64 registers through the exported call, 8192 through the dispatcher (words 4 and 3).
    EXPECT_TRUE(run([] { return pta20_memreg_get("0", 64, nullptr); }) == registers(0, 64));
    EXPECT_TRUE(dispatch(18, "0", 8192) == registers(0, 8192));
    EXPECT_EQ(run([] { return pta20_memreg_get("0", 65, nullptr); }), "-1 invalid read len!\n");
    const std::string too_long = "-1 " + err("_pta_invoke_memreg_get", "invalid read len!");
    EXPECT_TRUE(matches(cat({dispatch(18, "0", 8193), dispatch(18, "0", UINT32_MAX)}),
                        too_long + too_long));
    first = 7; // a failure prints no register and leaves it alone
    EXPECT_TRUE(matches(run([&] { return pta20_memreg_get(nullptr, 1, &first); }),
                        "-1 " + err("_pta_invoke_memreg_get", "Invalid input addr!")));
    EXPECT_EQ(first, 7u);
}

// NOLINTEND(readability-magic-numbers)
} // namespace
