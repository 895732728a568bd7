// CSR generation (command 13): the request the secure world makes is written as it was
// reported, and is a real DER request that openssl accepts, for the subject sent.
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include "core/shell.hpp"

#include <regex>

using namespace karst::test;

namespace {

class CsrTest : public KarstTest {};

bool matches(const std::string &out, const std::string &re) {
    return std::regex_match(out, std::regex(re));
}

TEST_F(CsrTest, ImportWritesARequestOpensslAcceptsForTheSubjectSent) {
    const std::string subject = "CN=bmc-0042,O=karst,C=US";
    const std::string csr = path("/tmp/bmc.csr");
    ASSERT_EQ(
        pta20_gen_csr_import(csr.c_str(), subject.data(), static_cast<uint32_t>(subject.size())),
        0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 13u);
    EXPECT_EQ(r.param_types, 0x0CC1u);
    EXPECT_EQ(r.params[0].a, 0u);
    EXPECT_EQ(r.params[1].size, 2048u);
    EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(r.params[2].input), r.params[2].input_kept),
        subject);
    EXPECT_EQ(read_file(csr).size(), r.params[1].output_size) << "exactly the reported bytes";
    EXPECT_LT(r.params[1].output_size, 2048u);

    const std::string text = path("/tmp/bmc.txt");
    ASSERT_EQ(sh("openssl req -inform DER -in " + karst::shell::quote(csr) +
                 " -verify -noout -subject -nameopt compat -out " + karst::shell::quote(text) +
                 " 2>/dev/null"),
              0);
    EXPECT_EQ(read_file(text), "subject=/CN=bmc-0042/O=karst/C=US\n");
}

TEST_F(CsrTest, DispatchedFileModeReadsTheInputFile) {
    const std::string input = path("/tmp/subject.txt");
    const std::string csr = path("/tmp/file.csr");
    write_file(input, "CN=from-file\n");
    ASSERT_EQ(pta_open_session(), 0u);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(csr.c_str()), 0,
               reinterpret_cast<uintptr_t>(input.c_str()));
    EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_GEN_CSR, block), 0);

    // Both an input file and data: refused.
    const char data[] = "CN=x";
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta_invoke_gen_csr(13, csr.c_str(), data, 4, input.c_str()), -1);
        EXPECT_EQ(pta_invoke_gen_csr_import(csr.c_str(), data, 0), -1);
    });
    pta_close_session();
    EXPECT_TRUE(matches(out, R"((\[E:pta_invoke_gen_csr:\d+\] Error parameters\n){2})"));
    EXPECT_TRUE(public_key_of_csr(csr, path("/tmp/pub.pem")));
}

TEST_F(CsrTest, RefusalsLeaveTheOutputFileUntouched) {
    const std::string csr = path("/tmp/keep.csr");
    write_file(csr, "previous");

    // Argument checks of the exported call: nothing printed, no session.
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_gen_csr_import(nullptr, "CN=x", 4), -1);
        EXPECT_EQ(pta20_gen_csr_import(csr.c_str(), nullptr, 4), -1);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);

    // A subject the secure world refuses: the TEE code is returned by the routine.
    const std::string bad = "no-equals-sign";
    ASSERT_EQ(pta_open_session(), 0u);
    int rc = 0;
    out = capture_stdout([&] {
        rc = pta_invoke_gen_csr_import(csr.c_str(), bad.data(), static_cast<uint32_t>(bad.size()));
    });
    pta_close_session();
    EXPECT_EQ(static_cast<uint32_t>(rc), TEEC_ERROR_BAD_FORMAT);
    EXPECT_TRUE(matches(
        out,
        R"(\[E:pta_invoke_gen_csr:\d+\] TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4\n)"));
    out = capture_stdout([&] {
        EXPECT_EQ(pta20_gen_csr_import(csr.c_str(), bad.data(), static_cast<uint32_t>(bad.size())),
                  -1);
    });
    EXPECT_EQ(read_file(csr), "previous");

    // A missing input file.
    ASSERT_EQ(pta_open_session(), 0u);
    out = capture_stdout([&] {
        EXPECT_EQ(pta_invoke_gen_csr(13, csr.c_str(), nullptr, 0, path("/tmp/none").c_str()), -1);
    });
    pta_close_session();
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to open file:.*\n)"
                             R"(\[E:pta_invoke_gen_csr:\d+\] File .*/tmp/none not exist\n)"));
    EXPECT_EQ(read_file(csr), "previous");
}

TEST_F(CsrTest, EveryClientFailureReleasesEverything) {
    const std::string csr = path("/tmp/f.csr");
    const karst_emu_op ops[] = {KARST_EMU_REGISTER, KARST_EMU_REGISTER, KARST_EMU_INVOKE};
    for (size_t i = 0; i < 3; ++i) {
        karst_emu_fail_nth(ops[i], i == 1 ? 2 : 1, TEEC_ERROR_OUT_OF_MEMORY);
        int rc = 0;
        capture_stdout([&] { rc = pta20_gen_csr_import(csr.c_str(), "CN=x", 4); });
        EXPECT_EQ(rc, -1);
    }
    EXPECT_NE(sh("test -e " + karst::shell::quote(csr)), 0);
}

} // namespace
