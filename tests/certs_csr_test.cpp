// CSR generation (command 13): the request the secure world makes is written exactly as
// reported, is a DER request that openssl accepts for the subject sent, and nothing is written
// when anything fails.
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include "core/shell.hpp"

#include <regex>

using namespace karst::test;
using karst::shell::quote;

namespace {

class CsrTest : public KarstTest {};

TEST_F(CsrTest, ImportWritesARequestOpensslAcceptsForTheSubjectSent) {
    const std::string subject = "CN=bmc-0042,O=karst,C=US";
    const std::string csr = path("/tmp/bmc.csr");
    ASSERT_EQ(
        pta20_gen_csr_import(csr.c_str(), subject.data(), static_cast<uint32_t>(subject.size())),
        0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 13u);
    EXPECT_EQ(r.param_types, 0x0CC1u);
    EXPECT_EQ(r.params[1].size, 2048u);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(r.params[2].input), r.params[2].input_kept),
        subject);
    EXPECT_LT(r.params[1].output_size, 2048u);
    EXPECT_EQ(read_file(csr).size(), r.params[1].output_size) << "exactly the reported bytes";

    const std::string text = path("/tmp/bmc.txt");
    ASSERT_EQ(sh("openssl req -inform DER -in " + quote(csr) +
                 " -verify -noout -subject -nameopt compat -out " + quote(text) + " 2>/dev/null"),
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
    pta_close_session();
    EXPECT_TRUE(public_key_of_csr(csr, path("/tmp/pub.pem")));
}

TEST_F(CsrTest, RefusalsLeaveTheOutputFileUntouched) {
    const std::string csr = path("/tmp/keep.csr");
    write_file(csr, "previous");
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_gen_csr_import(nullptr, "CN=x", 4), -1);
        EXPECT_EQ(pta20_gen_csr_import(csr.c_str(), nullptr, 4), -1);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);

    ASSERT_EQ(pta_open_session(), 0u);
    int refused = 0;
    out = capture_stdout([&] {
        EXPECT_EQ(pta_invoke_gen_csr(13, csr.c_str(), "CN=x", 4, path("/tmp/in").c_str()), -1);
        EXPECT_EQ(pta_invoke_gen_csr_import(csr.c_str(), "CN=x", 0), -1);
        EXPECT_EQ(pta_invoke_gen_csr(13, csr.c_str(), nullptr, 0, path("/tmp/none").c_str()), -1);
        refused = pta_invoke_gen_csr_import(csr.c_str(), "no-equals-sign", 14);
    });
    pta_close_session();
    EXPECT_EQ(static_cast<uint32_t>(refused), TEEC_ERROR_BAD_FORMAT) << "the TEE code, unchanged";
    EXPECT_TRUE(matches(
        out,
        R"((\[E:pta_invoke_gen_csr:\d+\] Error parameters\n){2})"
        R"(\[E:readbin:\d+\] Failed to open file:.*\n)"
        R"(\[E:pta_invoke_gen_csr:\d+\] File .*/tmp/none not exist\n)"
        R"(\[E:pta_invoke_gen_csr:\d+\] TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4\n)"));
    capture_stdout([&] { EXPECT_EQ(pta20_gen_csr_import(csr.c_str(), "C=USA", 5), -1); });
    EXPECT_EQ(read_file(csr), "previous");
}

} // namespace
