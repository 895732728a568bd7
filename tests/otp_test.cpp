// SPDX-License-Identifier: Apache-2.0
// OTP keys, the OTP user area and the board serial number (commands 20, 21, 23) through the otp
// tool's sub-commands and the calls below them: what reaches the secure world, what is printed
// (the tool's status is 0 whatever happened), the key file and the key it must not leave behind.
#include "support/call_text.hpp"
#include "support/program.hpp"

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

using namespace karst::test;

namespace {
// NOLINTBEGIN(readability-magic-numbers): the tests spell out the sizes and values they check.

class OtpTest : public KarstTest {
  protected:
    // otp_main's result and output for args, "@name" standing for the file /tmp/name of this test.
    std::string otp(std::vector<std::string> args) const {
        std::vector<char *> argv;
        for (std::string &arg : args) {
            arg = arg.starts_with('@') ? path("/tmp/" + arg.substr(1)) : arg;
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        return run([&] { return otp_main(static_cast<int32_t>(args.size()), argv.data()); });
    }
};

TEST_F(OtpTest, SubCommandsAndWhatTheySend) {
    // The key file is written, and no copy of the key is left in freed heap: glibc hands the
    // freed 64-byte block to the next request of that size, its first 16 bytes overwritten by its
    // free list.
    const std::string k1 = path("/tmp/k1");
    const char *argv[] = {"getkey", "1a", k1.c_str(), nullptr}; // nothing freed after the key
    capture_stdout([&] { otp_main(3, const_cast<char **>(argv)); });
    void *reused = std::malloc(64);
    const std::string key = read_file(k1);
    EXPECT_EQ(memmem(reused, 64, key.data() + 16, 16), nullptr) << "key bytes left in freed heap";
    std::free(reused);
    EXPECT_EQ(sent(), Sent{"20 c1; 26,0; 64 2 ''"});

    write_file(path("/tmp/d"), "serial-data");
    const std::string usage =
        "0 usage:\notp getkey <keyid> <output>\notp prog_usr <offset> <data>\n"
        "otp getsn <offset> <data>\n";
    const std::string serial = R"(0 KB[0-9]{10}\n)", sn = "23 cc; 4 2 ''; 64 2 ''";
    const std::string key_failed = invoke_failed("__pta_invoke_otp_get_key", "0xffff0008");
    const std::string prog_failed = invoke_failed("__pta_invoke_otp_prog_usr", "0xffff0003");
    // Arguments, a pattern of the result and the output, the invoke if any.
    const std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{"getkey", "0x1A", "@k2", "extra"}, "0 ", "20 c1; 26,0; 64 2 ''"},
        {{"getkey", "zz", "@k0"}, "0 ", "20 c1; 0,0; 64 2 ''"}, // no digits: key 0
        {{"getkey", "ff", "@kf"}, "0 " + key_failed, "20 c1; 255,0; 64 2 ''"},
        {{"prog_usr", "100", "@d"}, "0 ", "21 c1; 256,0; 11 2 ''"},
        {{"prog_usr", "0x100", "@d"}, "0 " + prog_failed, "21 c1; 256,0; 11 2 ''"}, // once only
        {{"prog_usr", "ff", "@d"}, "0 " + prog_failed, "21 c1; 255,0; 11 2 ''"},    // overlaps it
        {{"prog_usr", "200", "@none"}, R"(0 \[E:readbin:\d+\] Failed to open file:.*/none\n)", ""},
        {{"getsn"}, serial, sn},
        {{}, usage, ""},
        {{"dump"}, usage, ""},
        {{"getkey", "5"}, usage, ""},
        {{"version", "anything"}, "0 ", ""},
    };
    for (const auto &[args, output, invoke] : cases) {
        const std::string name = args.empty() ? "(none)" : args[0] + " " + args.back();
        EXPECT_TRUE(matches(otp(args), output)) << name;
        EXPECT_EQ(sent(), invoke.empty() ? Sent{} : Sent{invoke}) << name;
    }
    // A 32-byte key, the rest zero, the same on every read; zeros after a failed read.
    EXPECT_EQ(key, read_file(path("/tmp/k2")));
    EXPECT_NE(key.substr(0, 32), std::string(32, '\0'));
    EXPECT_EQ(key.substr(32) + read_file(path("/tmp/kf")), std::string(96, '\0'));
    struct stat st {};
    EXPECT_EQ(::stat(k1.c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0600u) << "a 0600 key file";
    uint8_t area[11] = {};
    ASSERT_EQ(karst_emu_otp_user_read(0x100, area, sizeof area), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(area), sizeof area), "serial-data");
    // A client without registered memory copies only input memory into the secure world, and
    // output memory back: the data is still programmed (not zeros), the key still read.
    karst_emu_registered_memory(0);
    EXPECT_EQ(otp({"prog_usr", "200", "@d"}) + otp({"getkey", "1a", "@k3"}), "0 0 ");
    ASSERT_EQ(karst_emu_otp_user_read(0x200, area, sizeof area), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(area), sizeof area), "serial-data");
    EXPECT_EQ(read_file(path("/tmp/k3")), key);
    // The program hands its operands on and exits with the front end's status.
    const ProgramRun program = run_program(otp_program(), {"getsn", "x"});
    EXPECT_TRUE(matches(std::to_string(program.status) + " " + program.output, serial));
}

// Without registered memory the client library gives registered memory a buffer of its own and
// fills it only for input: the data to program, whether the caller's memory is read-only or not,
// must still reach the user area whole, and the caller's memory stay as it was.
TEST_F(OtpTest, UserAreaDataArrivesWithoutRegisteredMemory) {
    karst_emu_registered_memory(0);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (const int protection : {PROT_READ, PROT_READ | PROT_WRITE}) {
        void *memory =
            mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        const std::string data = protection == PROT_READ ? "read-only data" : "writable data!";
        std::memcpy(memory, data.data(), data.size());
        ASSERT_EQ(mprotect(memory, page, protection), 0);
        const uint32_t offset = protection == PROT_READ ? 0x300 : 0x320;
        EXPECT_EQ(pta_invoke_otp_prog_usr(21, offset, memory, data.size()), 0) << data;
        std::string area(data.size(), '\0');
        ASSERT_EQ(
            karst_emu_otp_user_read(offset, reinterpret_cast<uint8_t *>(area.data()), area.size()),
            0);
        EXPECT_EQ(area, data) << "programmed";
        EXPECT_EQ(std::string(static_cast<char *>(memory), data.size()), data) << "left as it was";
        munmap(memory, page);
    }
}

// NOLINTEND(readability-magic-numbers)
} // namespace
