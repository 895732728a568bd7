// OTP key read, user area programming and the board serial number (commands 20, 21, 23): what
// reaches the secure world, OTP behaviour (a byte is programmed once, state persists across
// processes) and the results of the bodies and their wrappers.
#include "support/test_env.hpp"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <regex>

using namespace karst::test;

namespace {

class OtpTest : public KarstTest {};

TEST_F(OtpTest, KeyReadSendsTheKeyNumberAndAnOutputBuffer) {
    uint8_t key[64] = {};
    ASSERT_EQ(pta_invoke_otp_get_key(20, 0x3, key, sizeof key), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 20u);
    EXPECT_EQ(r.param_types, 0xC1u);
    EXPECT_EQ(r.params[0].a, 3u);
    EXPECT_EQ(r.params[1].size, 64u);
    EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));

    uint8_t again[64] = {};
    ASSERT_EQ(in_child([&] { return pta_invoke_otp_get_key(20, 0x3, again, 64); }), 0);
    ASSERT_EQ(pta_invoke_otp_get_key(20, 0x3, again, sizeof again), 0);
    EXPECT_EQ(std::memcmp(key, again, sizeof key), 0) << "keys are kept";

    uint8_t untouched[64];
    std::memset(untouched, 0xEE, sizeof untouched);
    const std::string out = capture_stdout(
        [&] { EXPECT_EQ(pta_invoke_otp_get_key(20, 0x20, untouched, sizeof untouched), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:__pta_invoke_otp_get_key:\d+\] TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n)"));
    EXPECT_EQ(untouched[0], 0xEE) << "the library does not clear the caller's buffer";

    // The otp front end writes the key to a fresh 0600 file and leaves no copy in freed heap
    // (glibc hands the freed 64-byte block to the next request of that size, its first 16 bytes
    // overwritten by its free list).
    const std::string file = path("/tmp/key.bin");
    const char *argv[] = {"getkey", "3", file.c_str()};
    capture_stdout([&] { otp_main(3, const_cast<char **>(argv)); });
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    void *reused = std::malloc(64);
    EXPECT_EQ(memmem(reused, 64, key + 16, 16), nullptr) << "key bytes left in freed heap";
    std::free(reused);
}

TEST_F(OtpTest, UserAreaBytesAreProgrammedOnceAndPersist) {
    uint8_t hello[5] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_EQ(pta_invoke_otp_prog_usr(21, 0x10, hello, sizeof hello), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 21u);
    EXPECT_EQ(r.param_types, 0xC1u);
    EXPECT_EQ(r.params[0].a, 0x10u);
    EXPECT_EQ(r.params[1].size, 5u);
    EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));

    // Overlapping programmed bytes, from another process: refused, nothing changes.
    uint8_t xyz[3] = {'X', 'Y', 'Z'};
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(in_child([&] { return pta_invoke_otp_prog_usr(21, 0x0E, xyz, 3) == -1; }), 1);
    });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:__pta_invoke_otp_prog_usr:\d+\] TEEC_InvokeCommand failed with code 0xffff0003 origin 0x4\n)"));
    uint8_t area[8] = {};
    ASSERT_EQ(karst_emu_otp_user_read(0x0E, area, sizeof area), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(area), 8), std::string("\0\0hello\0", 8));

    // Next to them and up to the area's last byte it works; past the end it does not.
    EXPECT_EQ(pta_invoke_otp_prog_usr(21, 0x0D, xyz, 3), 0);
    EXPECT_EQ(pta_invoke_otp_prog_usr(21, 1021, xyz, 3), 0);
    capture_stdout([&] { EXPECT_EQ(pta_invoke_otp_prog_usr(21, 1022, xyz, 3), -1); });
}

TEST_F(OtpTest, BoardSerialNumberFillsTheWordAndTheBuffer) {
    uint32_t word = 0xFFFFFFFF;
    char serial[64] = {};
    ASSERT_EQ(pta20_otp_board_sn_get(&word, serial, sizeof serial), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 23u);
    EXPECT_EQ(r.param_types, 0xCCu);
    EXPECT_EQ(r.params[0].size, 4u);
    EXPECT_EQ(r.params[0].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    EXPECT_EQ(r.params[1].size, 64u);
    EXPECT_TRUE(matches(serial, "KB[0-9]{10}"));
    EXPECT_EQ(word, std::strlen(serial));

    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_otp_board_sn_get(&word, serial, 0), -1);
        EXPECT_EQ(pta20_otp_board_sn_get(nullptr, serial, 64), -1);
        EXPECT_EQ(pta20_otp_board_sn_get(&word, nullptr, 64), -1);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 1u);
}

TEST_F(OtpTest, BoardSerialBodyReturnsTheTeeCodeAndItsWrapperMinusOne) {
    const uint32_t code = TEEC_ERROR_NOT_SUPPORTED;
    uint32_t word = 0x12345678;
    char serial[64] = {};
    ASSERT_EQ(pta_open_session(), 0u);
    karst_emu_script(KARST_EMU_INVOKE, &code, 1);
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(static_cast<uint32_t>(_pta_invoke_board_sn_get(23, &word, serial, 64)), code);
    });
    pta_close_session();
    EXPECT_EQ(word, 0u) << "set to 0 before the call";
    EXPECT_TRUE(matches(
        out,
        R"(\[E:_pta_invoke_board_sn_get:\d+\] TEEC_InvokeCommand failed with code 0xffff000a origin 0x4\n)"));

    karst_emu_script(KARST_EMU_INVOKE, &code, 1);
    capture_stdout([&] { EXPECT_EQ(pta_invoke_otp_get_board_sn(23, &word, serial, 64), -1); });
    karst_emu_fail_nth(KARST_EMU_REGISTER, 2, TEEC_ERROR_OUT_OF_MEMORY);
    capture_stdout([&] { EXPECT_EQ(pta20_otp_board_sn_get(&word, serial, 64), -1); });
}

} // namespace
