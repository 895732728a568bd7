// Certificate replacement (commands 11 and 27): what reaches the secure world in file and
// import mode, the limits of the URI and the index, the remote attestation extras (RA_TID and
// the archive of the answer), and the release of everything on every failure.
#include "support/blocks.hpp"
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include <regex>
#include <sys/stat.h>

using namespace karst::test;

namespace {

class CertReplaceTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
    }

    // The certificate data block a journal record carried as parameter 1.
    static Bytes sent_block(const karst_emu_invoke_record &r) {
        return Bytes(r.params[1].input, r.params[1].input + r.params[1].input_kept);
    }
    static std::string sent_uri(const karst_emu_invoke_record &r) {
        return std::string(reinterpret_cast<const char *>(r.params[0].input),
                           r.params[0].input_kept);
    }
    // Writes the ra_uid file with size bytes 0x00, 0x01, ...
    void write_ra_uid(size_t size) {
        mkdir(path("/tmp/attestation").c_str(), 0777);
        std::string uid;
        for (size_t i = 0; i < size; ++i) {
            uid += static_cast<char>(i);
        }
        write_file(path("/tmp/attestation/ra_uid"), uid);
    }
};

bool matches(const std::string &out, const std::string &re) {
    return std::regex_match(out, std::regex(re));
}

std::string text_of(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

TEST_F(CertReplaceTest, FileIsSentInACertificateBlockUnderItsUri) {
    ASSERT_EQ(pta20_crt_replace(3, certificates().leaf_path.c_str(), 0x5a), 0);
    const auto records = journal();
    ASSERT_EQ(records.size(), 1u);
    const auto &r = records[0];
    EXPECT_EQ(r.command, 11u);
    EXPECT_EQ(r.param_types, 0x01CCu);
    EXPECT_EQ(sent_uri(r), std::string("Systems/1/Certificates/3\0", 25));
    EXPECT_EQ(r.params[0].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
    EXPECT_EQ(r.params[1].size, 65536u);
    EXPECT_EQ(r.params[2].a, 0x5au);
    EXPECT_EQ(r.params[2].b, 0u);

    const Bytes block = sent_block(r);
    ASSERT_EQ(pta20_datablk_check(block.data(), static_cast<uint32_t>(block.size())), 0);
    EXPECT_EQ(get(block, "Systems/1/Certificates/3"), text_of(certificates().leaf));
    EXPECT_EQ(get(block, "RA_TID"), "<-1>") << "command 11 carries no RA_TID";
}

TEST_F(CertReplaceTest, IndexOutsideOneToFiveIsRefusedBeforeAnySession) {
    const std::string out = capture_stdout([] {
        EXPECT_EQ(pta20_crt_replace(0, certificates().leaf_path.c_str(), 0), -1);
        EXPECT_EQ(pta20_crt_replace(6, certificates().leaf_path.c_str(), 0), -1);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u);
    EXPECT_EQ(pta20_crt_replace(5, certificates().leaf_path.c_str(), 0), 0);
    EXPECT_EQ(sent_uri(journal().at(0)), std::string("Systems/1/Certificates/5\0", 25));
}

TEST_F(CertReplaceTest, ImportSendsTheCallersBytesUnchanged) {
    const Bytes &leaf = certificates().leaf;
    ASSERT_EQ(pta20_crt_replace_import(nullptr, leaf.data(), static_cast<uint32_t>(leaf.size()), 1),
              0);
    const std::string uri31(31, 'u');
    ASSERT_EQ(
        pta20_crt_replace_import(uri31.c_str(), leaf.data(), static_cast<uint32_t>(leaf.size()), 2),
        0);
    const auto records = journal();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(sent_uri(records[0]), std::string("Systems/1/Certificates/0\0", 25));
    EXPECT_EQ(sent_block(records[0]), leaf) << "no data block in import mode";
    EXPECT_EQ(sent_uri(records[1]), uri31 + '\0');

    const std::string uri32(32, 'u');
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_crt_replace_import(uri32.c_str(), leaf.data(),
                                           static_cast<uint32_t>(leaf.size()), 0),
                  -1);
    });
    EXPECT_TRUE(is_error(out, "pta_invoke_replace_crt", "long uri"));
    EXPECT_EQ(karst_emu_journal_count(), 2u);
}

TEST_F(CertReplaceTest, InconsistentModeIsRefused) {
    const uint8_t byte = 1;
    ASSERT_EQ(pta_open_session(), 0u);
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta_invoke_replace_crt(11, 1, nullptr, 0, "/x", &byte, 1), -1);
        EXPECT_EQ(pta_invoke_replace_crt(11, 1, nullptr, 0, "/x", nullptr, 1), -1);
        EXPECT_EQ(pta_invoke_replace_ra_crt(27, 1, nullptr, 0, nullptr, &byte, 0), -1);
        EXPECT_EQ(pta_invoke_replace_ra_crt(27, 1, nullptr, 0, nullptr, nullptr, 0), -1);
    });
    pta_close_session();
    EXPECT_TRUE(matches(out, R"((\[E:pta_invoke_replace_crt:\d+\] Error parameters\n){2})"
                             R"((\[E:pta_invoke_replace_ra_crt:\d+\] Error parameters\n){2})"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(CertReplaceTest, UnreadableOrEmptyFileIsRefusedBeforeTheSecureWorld) {
    const std::string missing = path("/tmp/missing.der");
    const std::string empty = path("/tmp/empty.der");
    write_file(empty, "");
    std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_crt_replace(1, missing.c_str(), 0), -1); });
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to open file:)" + missing + "\n" +
                                 R"(\[E:pta_invoke_replace_crt:\d+\] File )" + missing +
                                 " not exist\n"));
    out = capture_stdout([&] { EXPECT_EQ(pta20_crt_replace(1, empty.c_str(), 0), -1); });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:blk_set:\d+\] Incorrect datablk length 0\n)"
        R"(\[E:pta_invoke_replace_crt:\d+\] Failed to set key\[Systems/1/Certificates/1\]\n)"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(CertReplaceTest, SecureWorldRefusesWhatIsNotACertificate) {
    const std::string junk = "not a certificate";
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_crt_replace_import("Systems/1/Certificates/2", junk.data(),
                                           static_cast<uint32_t>(junk.size()), 0),
                  -1);
    });
    EXPECT_TRUE(matches(
        out,
        R"(\[E:pta_invoke_replace_crt:\d+\] TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4\n)"));
}

TEST_F(CertReplaceTest, RaFileModeAddsRaTidAndArchivesTheAnswer) {
    write_ra_uid(20);
    ASSERT_EQ(pta_open_session(), 0u);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 4, 9, 0, reinterpret_cast<uintptr_t>(certificates().leaf_path.c_str()), 0, 0);
    const int rc = pta_invoke_cmd(PTA_DALU_CMD_REPLACE_RA_CRT, block);
    pta_close_session();
    ASSERT_EQ(rc, 0);

    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 27u);
    EXPECT_EQ(r.param_types, 0xC1CCu);
    EXPECT_EQ(r.params[3].size, 66560u);
    EXPECT_EQ(r.params[3].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    const Bytes sent = sent_block(r);
    EXPECT_EQ(get(sent, "Systems/1/Certificates/4"), text_of(certificates().leaf));
    EXPECT_EQ(get(sent, "RA_TID"), std::string("\x07\x08\x09\x0a\x0b\x0c\x0d\x0e"));

    const std::string answer = read_file(path("/tmp/attestation/ra_data.bin"));
    ASSERT_EQ(answer.size(), 66560u);
    EXPECT_NE(answer.find("tid=0708090a0b0c0d0e\n"), std::string::npos);
    struct stat st {};
    EXPECT_EQ(stat(path("/tmp/attestation/ra_data.tgz").c_str(), &st), 0);
    EXPECT_EQ(stat(path("/nv1/ra_data.tgz").c_str(), &st), 0);
}

TEST_F(CertReplaceTest, RaTidIsLeftOutWithoutAUsableRaUidFile) {
    struct Case {
        long uid_size; // -1: no file
        const char *message;
    };
    const Case cases[] = {
        {-1, R"(\[E:readbin:\d+\] Failed to open file:.*/tmp/attestation/ra_uid\n)"
             R"(\[I:pta_invoke_replace_ra_crt:\d+\] File .*/tmp/attestation/ra_uid not exist\n)"},
        {0, ""},
        {14,
         R"(\[I:pta_invoke_replace_ra_crt:\d+\] File .*/tmp/attestation/ra_uid too short for RA_TID\n)"},
    };
    for (const Case &c : cases) {
        if (c.uid_size >= 0) {
            write_ra_uid(static_cast<size_t>(c.uid_size));
        }
        karst_emu_journal_clear();
        ASSERT_EQ(pta_open_session(), 0u);
        int rc = 0;
        const std::string out = capture_stdout([&] {
            rc = pta_invoke_replace_ra_crt(27, 2, nullptr, 0, certificates().leaf_path.c_str(),
                                           nullptr, 0);
        });
        pta_close_session();
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(matches(out, c.message)) << out;
        const Bytes sent = sent_block(journal().at(0));
        EXPECT_EQ(get(sent, "RA_TID"), "<-1>");
        EXPECT_EQ(get(sent, "Systems/1/Certificates/2"), text_of(certificates().leaf));
    }
}

TEST_F(CertReplaceTest, RaImportSendsNoBlockAndNoRaTid) {
    write_ra_uid(20);
    const Bytes &leaf = certificates().leaf;
    ASSERT_EQ(
        pta20_ra_crt_replace_import(nullptr, leaf.data(), static_cast<uint32_t>(leaf.size()), 0),
        0);
    const auto r = journal().at(0);
    EXPECT_EQ(sent_uri(r), std::string("Systems/1/Certificates/0\0", 25));
    EXPECT_EQ(sent_block(r), leaf);
    EXPECT_NE(read_file(path("/tmp/attestation/ra_data.bin")).find("tid=0000000000000000\n"),
              std::string::npos);
}

TEST_F(CertReplaceTest, RaAnswerIsLostWhenItsDirectoryCannotBeMade) {
    const Bytes &leaf = certificates().leaf;
    ASSERT_EQ(rmdir(path("/tmp").c_str()), 0);
    write_file(path("/tmp"), "a file where the directory should be");
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(
            pta20_ra_crt_replace_import("ra", leaf.data(), static_cast<uint32_t>(leaf.size()), 0),
            -1);
    });
    EXPECT_TRUE(is_error(out, "pta_invoke_replace_ra_crt",
                         "Failed to create path (" + path("/tmp/attestation") + ")"));
    struct stat st {};
    EXPECT_NE(stat(path("/nv1/ra_data.tgz").c_str(), &st), 0);
}

// Each registration and the invoke of both routines fail in turn: one message, -1, nothing
// left registered (the fixture checks), and no archive from a failed RA call.
TEST_F(CertReplaceTest, EveryClientFailureIsReportedOnceAndReleasesEverything) {
    struct Point {
        karst_emu_op op;
        size_t nth;
        const char *message;
    };
    const Point points[] = {
        {KARST_EMU_REGISTER, 1, "TEEC_RegisterSharedMemory failed with code 0xffff000c"},
        {KARST_EMU_REGISTER, 2, "TEEC_RegisterSharedMemory failed with code 0xffff000c"},
        {KARST_EMU_REGISTER, 3, "TEEC_RegisterSharedMemory failed with code 0xffff000c"},
        {KARST_EMU_INVOKE, 1, "TEEC_InvokeCommand failed with code 0xffff000c origin 0x4"},
    };
    for (const bool ra : {false, true}) {
        for (const Point &p : points) {
            if (!ra && p.op == KARST_EMU_REGISTER && p.nth == 3) {
                continue; // command 11 registers two blocks
            }
            karst_emu_fail_nth(p.op, p.nth, TEEC_ERROR_OUT_OF_MEMORY);
            ASSERT_EQ(pta_open_session(), 0u);
            int rc = 0;
            const char *routine = ra ? "pta_invoke_replace_ra_crt" : "pta_invoke_replace_crt";
            const std::string out = capture_stdout([&] {
                rc = ra ? pta_invoke_replace_ra_crt(27, 1, nullptr, 0,
                                                    certificates().leaf_path.c_str(), nullptr, 0)
                        : pta_invoke_replace_crt(11, 1, nullptr, 0,
                                                 certificates().leaf_path.c_str(), nullptr, 0);
            });
            pta_close_session();
            EXPECT_EQ(rc, -1);
            EXPECT_TRUE(matches(out, R"([\s\S]*)" + std::string(R"(\[E:)") + routine +
                                         R"(:\d+\] )" + p.message + "\n"))
                << out;
            karst_emu_stats stats{};
            karst_emu_get_stats(&stats);
            EXPECT_EQ(stats.registered, 0u);
            struct stat st {};
            EXPECT_NE(stat(path("/nv1/ra_data.tgz").c_str(), &st), 0);
        }
    }
}

} // namespace
