// The emulator as a TEE client library: GlobalPlatform parameter rules, shared (not copied)
// memory, size write-back, return origins and the application's identity.
#include "support/test_env.hpp"

#include <tee_client_api.h>

#include <cstring>

using namespace karst::test;

namespace {

constexpr TEEC_UUID APP = {
    0xCCF5BD24, 0xE290, 0x468E, {0x81, 0x12, 0xFD, 0x09, 0x96, 0xC4, 0xA8, 0xDF}};

class EmulatorTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
        uint32_t origin = 0;
        ASSERT_EQ(
            TEEC_OpenSession(&ctx, &session, &APP, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
        name.buffer = name_bytes;
        name.size = sizeof name_bytes;
        name.flags = TEEC_MEM_INPUT;
        std::strcpy(name_bytes, "bootdelay");
        ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &name), TEEC_SUCCESS);
    }
    void TearDown() override {
        TEEC_ReleaseSharedMemory(&name);
        TEEC_CloseSession(&session);
        TEEC_FinalizeContext(&ctx);
        KarstTest::TearDown();
    }

    // Reads bootdelay into out (registered with flags) as parameter 1.
    TEEC_Result get(TEEC_SharedMemory &out, uint32_t type1, uint32_t &origin, TEEC_Operation &op) {
        op = TEEC_Operation{};
        op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, type1, TEEC_NONE, TEEC_NONE);
        op.params[0].memref.parent = &name;
        op.params[1].memref.parent = &out;
        op.params[1].memref.size = out.size;
        return TEEC_InvokeCommand(&session, 4, &op, &origin);
    }

    TEEC_Context ctx{};
    TEEC_Session session{};
    TEEC_SharedMemory name{};
    char name_bytes[1024] = {};
};

TEST_F(EmulatorTest, AnswersAreWrittenIntoTheCallersOwnMemory) {
    char value[64];
    std::memset(value, '#', sizeof value);
    TEEC_SharedMemory out{};
    out.buffer = value;
    out.size = sizeof value;
    out.flags = TEEC_MEM_OUTPUT;
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    TEEC_Operation op;
    uint32_t origin = 0;
    EXPECT_EQ(get(out, TEEC_MEMREF_WHOLE, origin, op), TEEC_SUCCESS);
    EXPECT_EQ(origin, TEEC_ORIGIN_TRUSTED_APP);
    EXPECT_EQ(op.params[1].memref.size, 2u);
    EXPECT_EQ(out.size, sizeof value) << "the block's own size never changes";
    EXPECT_STREQ(value, "2");
    EXPECT_EQ(value[2], '#');
    TEEC_ReleaseSharedMemory(&out);
}

TEST_F(EmulatorTest, TooSmallOutputLearnsTheSizeAndGetsNothing) {
    char value[1] = {'#'};
    TEEC_SharedMemory out{};
    out.buffer = value;
    out.size = sizeof value;
    out.flags = TEEC_MEM_OUTPUT;
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    TEEC_Operation op;
    uint32_t origin = 0;
    EXPECT_EQ(get(out, TEEC_MEMREF_WHOLE, origin, op), TEEC_ERROR_SHORT_BUFFER);
    EXPECT_EQ(origin, TEEC_ORIGIN_TRUSTED_APP);
    EXPECT_EQ(op.params[1].memref.size, 2u);
    EXPECT_EQ(value[0], '#');
    TEEC_ReleaseSharedMemory(&out);
}

TEST_F(EmulatorTest, BadParametersAreRefusedByTheClientLibrary) {
    char value[64];
    TEEC_SharedMemory out{};
    out.buffer = value;
    out.size = sizeof value;
    TEEC_Operation op;
    uint32_t origin = 0;

    // Not registered.
    EXPECT_EQ(get(out, TEEC_MEMREF_WHOLE, origin, op), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);

    // Registered with neither direction.
    out.flags = 0;
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    EXPECT_EQ(get(out, TEEC_MEMREF_WHOLE, origin, op), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);
    TEEC_ReleaseSharedMemory(&out);

    // A partial reference against the block's direction, or beyond its end.
    out.flags = TEEC_MEM_INPUT;
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    EXPECT_EQ(get(out, TEEC_MEMREF_PARTIAL_OUTPUT, origin, op), TEEC_ERROR_BAD_PARAMETERS);
    TEEC_ReleaseSharedMemory(&out);
    out.flags = TEEC_MEM_OUTPUT;
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    op = TEEC_Operation{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_MEMREF_PARTIAL_OUTPUT, 0, 0);
    op.params[0].memref.parent = &name;
    op.params[1].memref = {&out, 8, sizeof value - 4};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 4, &op, &origin), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);

    // A partial reference inside the block works and reports its own size.
    op.params[1].memref = {&out, 8, 4};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 4, &op, &origin), TEEC_SUCCESS);
    EXPECT_EQ(op.params[1].memref.size, 2u);
    EXPECT_STREQ(value + 4, "2");
    TEEC_ReleaseSharedMemory(&out);

    // Undefined parameter types, and the wrong types for the command.
    op = TEEC_Operation{};
    op.paramTypes = TEEC_PARAM_TYPES(4, 0, 0, 0);
    EXPECT_EQ(TEEC_InvokeCommand(&session, 4, &op, &origin), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, 0, 0, 0);
    EXPECT_EQ(TEEC_InvokeCommand(&session, 4, &op, &origin), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_TRUSTED_APP);
    EXPECT_EQ(TEEC_InvokeCommand(&session, 19, nullptr, &origin), TEEC_ERROR_NOT_SUPPORTED);
}

TEST_F(EmulatorTest, OnlyTheBoardsApplicationIsKnownAndOneSessionAtATime) {
    TEEC_Session other{};
    uint32_t origin = 0;
    TEEC_UUID unknown = APP;
    unknown.clockSeqAndNode[7] ^= 1;
    EXPECT_EQ(
        TEEC_OpenSession(&ctx, &other, &unknown, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
        TEEC_ERROR_ITEM_NOT_FOUND);
    EXPECT_EQ(origin, TEEC_ORIGIN_TEE);
    EXPECT_EQ(TEEC_OpenSession(&ctx, &other, &APP, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
              TEEC_ERROR_BUSY);
    EXPECT_EQ(in_child([] { return pta_open_session() == TEEC_ERROR_BUSY ? 0 : 1; }), 0);
}

TEST_F(EmulatorTest, JournalFileRecordsInvokesOfWholeProcesses) {
    const std::string journal_path = path("/tmp/journal.txt");
    setenv("KARST_EMU_JOURNAL", journal_path.c_str(), 1);
    TEEC_Operation op;
    uint32_t origin = 0;
    char value[8];
    TEEC_SharedMemory out{value, sizeof value, TEEC_MEM_OUTPUT, 0, nullptr, nullptr};
    ASSERT_EQ(TEEC_RegisterSharedMemory(&ctx, &out), TEEC_SUCCESS);
    EXPECT_EQ(get(out, TEEC_MEMREF_WHOLE, origin, op), TEEC_SUCCESS);
    unsetenv("KARST_EMU_JOURNAL");
    TEEC_ReleaseSharedMemory(&out);
    const std::string line = read_file(journal_path);
    EXPECT_EQ(line.rfind("cmd=4 types=0xcc result=0x0 origin=0x4 "
                         "p0=0xc:size=1024,flags=0x1,out=0,in=626f6f7464656c6179",
                         0),
              0u)
        << line;
    EXPECT_NE(line.find(" p1=0xc:size=8,flags=0x2,out=2,in=\n"), std::string::npos) << line;
}

} // namespace
