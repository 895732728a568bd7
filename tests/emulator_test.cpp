// SPDX-License-Identifier: Apache-2.0
// The emulator as a TEE client library: parameter rules, shared (not copied) memory, size
// write-back, return origins and the application's identity.
#include "support/test_env.hpp"

#include <cstring>

using namespace karst::test;

namespace {

constexpr TEEC_UUID APP = {
    0xCCF5BD24, 0xE290, 0x468E, {0x81, 0x12, 0xFD, 0x09, 0x96, 0xC4, 0xA8, 0xDF}};
// Short names for the tables.
constexpr int UNREGISTERED = -1, IN = TEEC_MEM_INPUT, OUT = TEEC_MEM_OUTPUT;
constexpr uint32_t WHOLE = TEEC_MEMREF_WHOLE, PARTIAL_OUT = TEEC_MEMREF_PARTIAL_OUTPUT;
constexpr TEEC_Result OK = TEEC_SUCCESS, BAD = TEEC_ERROR_BAD_PARAMETERS;
constexpr uint32_t API = TEEC_ORIGIN_API, COMMS = TEEC_ORIGIN_COMMS, TA = TEEC_ORIGIN_TRUSTED_APP;

class EmulatorTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx_), TEEC_SUCCESS);
        ASSERT_EQ(
            TEEC_OpenSession(&ctx_, &session_, &APP, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin_),
            TEEC_SUCCESS);
        ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx_, &name_), TEEC_SUCCESS);
    }
    void TearDown() override {
        TEEC_ReleaseSharedMemory(&name_);
        TEEC_CloseSession(&session_);
        TEEC_FinalizeContext(&ctx_);
        KarstTest::TearDown();
    }

    // Reads bootdelay (command 4: the name in parameter 0, the value into parameter 1).
    TEEC_Result read_bootdelay(uint32_t type1, TEEC_RegisteredMemoryReference value) {
        op_ = TEEC_Operation{};
        op_.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, type1, TEEC_NONE, TEEC_NONE);
        op_.params[0].memref.parent = &name_;
        op_.params[1].memref = value;
        return TEEC_InvokeCommand(&session_, 4, &op_, &origin_);
    }

    TEEC_Context ctx_{};
    TEEC_Session session_{};
    char name_bytes_[1024] = "bootdelay";
    TEEC_SharedMemory name_{name_bytes_, sizeof name_bytes_, TEEC_MEM_INPUT, 0, nullptr, nullptr};
    TEEC_Operation op_{};
    uint32_t origin_ = 0;
};

// The value's memory reference, by how it was registered and referenced: what the invoke answers,
// the size it writes back, and what lands in the caller's own memory (bootdelay is "2"); the same
// whether memory is registered as it is or behind bounce buffers.
TEST_F(EmulatorTest, MemoryReferencesFollowTheClientRules) {
    for (const int direct : {1, 0}) {
        TEEC_ReleaseSharedMemory(&name_);
        karst_emu_registered_memory(direct);
        ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx_, &name_), TEEC_SUCCESS);
        const struct {
            const char *what;
            int flags; // as registered, or UNREGISTERED
            size_t bytes;
            uint32_t type;
            size_t size, offset;
            TEEC_Result result;
            uint32_t origin;
            size_t size_back;
            const char *written; // at offset, or null when nothing is written
        } cases[] = {
            {"whole", OUT, 64, WHOLE, 64, 0, OK, TA, 2, "2"},
            {"too small", OUT, 1, WHOLE, 1, 0, TEEC_ERROR_SHORT_BUFFER, TA, 2, nullptr},
            {"not registered", UNREGISTERED, 64, WHOLE, 64, 0, BAD, COMMS, 64, nullptr},
            {"against the direction", IN, 64, PARTIAL_OUT, 8, 4, BAD, API, 8, nullptr},
            {"beyond the end", OUT, 64, PARTIAL_OUT, 8, 60, BAD, API, 8, nullptr},
            {"inside", OUT, 64, PARTIAL_OUT, 8, 4, OK, TA, 2, "2"},
        };
        for (const auto &c : cases) {
            std::string memory(c.bytes, '#');
            TEEC_SharedMemory value{memory.data(), c.bytes, static_cast<uint32_t>(c.flags), 0,
                                    nullptr,       nullptr};
            ASSERT_TRUE(c.flags == UNREGISTERED ||
                        TEEC_RegisterSharedMemory(&ctx_, &value) == TEEC_SUCCESS)
                << c.what;
            EXPECT_EQ(read_bootdelay(c.type, {&value, c.size, c.offset}), c.result) << c.what;
            EXPECT_EQ(origin_, c.origin) << c.what;
            EXPECT_EQ(op_.params[1].memref.size, c.size_back) << c.what;
            EXPECT_EQ(value.size, c.bytes) << c.what << ": the block's own size never changes";
            std::string expected(c.bytes, '#');
            if (c.written != nullptr) {
                expected.replace(c.offset, 2, c.written, 2); // with its terminating zero
            }
            EXPECT_EQ(memory, expected) << c.what;
            if (c.flags != UNREGISTERED) {
                TEEC_ReleaseSharedMemory(&value);
            }
        }
    }
}

// Registration refuses a block without a direction or memory (an empty one still registers), and
// a registered record's flags and size are read when it is invoked, its memory when registered.
TEST_F(EmulatorTest, RegistrationAndTheRecordAtInvoke) {
    char bytes[64];
    const struct {
        void *buffer;
        size_t size;
        uint32_t flags;
        TEEC_Result result;
    } registrations[] = {
        {bytes, 8, 0, BAD}, {bytes, 1, IN | 0x4, BAD}, {nullptr, 0, IN, BAD}, {bytes, 0, IN, OK}};
    for (const auto &r : registrations) {
        TEEC_SharedMemory block{r.buffer, r.size, r.flags, 0, nullptr, nullptr};
        EXPECT_EQ(TEEC_RegisterSharedMemory(&ctx_, &block), r.result) << r.flags << " " << r.size;
        TEEC_ReleaseSharedMemory(&block);
    }
    const struct {
        uint32_t flags;
        size_t size;
        TEEC_Result result;
        uint32_t origin;
    } changed[] = {{0, 64, BAD, API},
                   {IN, 64, BAD, TA},
                   {OUT, 1, TEEC_ERROR_SHORT_BUFFER, TA},
                   {OUT, 65, BAD, COMMS}};
    for (const auto &c : changed) {
        TEEC_SharedMemory value{bytes, sizeof bytes, OUT, 0, nullptr, nullptr};
        ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx_, &value), OK);
        value.flags = c.flags;
        value.size = c.size;
        EXPECT_EQ(read_bootdelay(WHOLE, {&value, 0, 0}), c.result) << c.flags << " " << c.size;
        EXPECT_EQ(origin_, c.origin) << c.flags << " " << c.size;
        TEEC_ReleaseSharedMemory(&value);
    }
}

// Handles no longer open are answered as the driver answers them, and the client library says so
// on standard output.
TEST_F(EmulatorTest, HandlesNoLongerOpen) {
    TEEC_CloseSession(&session_);
    EXPECT_EQ(TEEC_InvokeCommand(&session_, 4, nullptr, &origin_), BAD);
    EXPECT_EQ(origin_, COMMS);
    TEEC_ReleaseSharedMemory(&name_);
    TEEC_FinalizeContext(&ctx_);
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(TEEC_InvokeCommand(&session_, 4, nullptr, &origin_), TEEC_ERROR_GENERIC);
        EXPECT_EQ(
            TEEC_OpenSession(&ctx_, &session_, &APP, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin_),
            TEEC_ERROR_GENERIC);
    });
    EXPECT_EQ(origin_, COMMS);
    EXPECT_TRUE(matches(out, R"(ERR \[\d+\] LT:TEEC_InvokeCommand:\d+: TEE_IOC_INVOKE failed\n)"
                             R"(ERR .*TEE_IOC_OPEN_SESSION failed\n)"));
}

// Parameter types that are undefined, or wrong for the command, and a command the application
// does not know.
TEST_F(EmulatorTest, BadParameterTypesAndUnknownCommands) {
    const struct {
        uint32_t command, types;
        TEEC_Result result;
        uint32_t origin;
    } cases[] = {
        {4, TEEC_PARAM_TYPES(4, 0, 0, 0), BAD, API},
        {4, TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, 0, 0, 0), BAD, TA},
        {19, 0, TEEC_ERROR_NOT_SUPPORTED, TA},
    };
    for (const auto &c : cases) {
        TEEC_Operation op{};
        op.paramTypes = c.types;
        EXPECT_EQ(TEEC_InvokeCommand(&session_, c.command, c.types ? &op : nullptr, &origin_),
                  c.result)
            << c.command;
        EXPECT_EQ(origin_, c.origin) << c.command;
    }
}

TEST_F(EmulatorTest, OnlyTheBoardsApplicationIsKnownAndOneSessionAtATime) {
    TEEC_Session other{};
    TEEC_UUID unknown = APP;
    unknown.clockSeqAndNode[7] ^= 1;
    EXPECT_EQ(
        TEEC_OpenSession(&ctx_, &other, &unknown, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin_),
        TEEC_ERROR_ITEM_NOT_FOUND);
    EXPECT_EQ(origin_, TEEC_ORIGIN_TEE);
    EXPECT_EQ(TEEC_OpenSession(&ctx_, &other, &APP, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin_),
              TEEC_ERROR_BUSY);
    EXPECT_EQ(in_child([] { return pta_open_session() == TEEC_ERROR_BUSY ? 0 : 1; }), 0);
}

TEST_F(EmulatorTest, JournalFileRecordsInvokesOfWholeProcesses) {
    const std::string journal_path = path("/tmp/journal.txt");
    setenv("KARST_EMU_JOURNAL", journal_path.c_str(), 1);
    char bytes[8];
    TEEC_SharedMemory value{bytes, sizeof bytes, TEEC_MEM_OUTPUT, 0, nullptr, nullptr};
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx_, &value), TEEC_SUCCESS);
    EXPECT_EQ(read_bootdelay(TEEC_MEMREF_WHOLE, {&value, 8, 0}), TEEC_SUCCESS);
    unsetenv("KARST_EMU_JOURNAL");
    TEEC_ReleaseSharedMemory(&value);
    EXPECT_TRUE(matches(read_file(journal_path),
                        "cmd=4 types=0xcc result=0x0 origin=0x4 "
                        "p0=0xc:size=1024,flags=0x1,out=0,in=626f6f7464656c6179"
                        ".* p1=0xc:size=8,flags=0x2,out=2,in=\n"));
}

} // namespace
