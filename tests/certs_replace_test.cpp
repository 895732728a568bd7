// Certificate replacement (commands 11 and 27): what reaches the secure world in file and
// import mode, the refusals before it, the remote attestation extras (RA_TID and the archive of
// the answer), and the release of everything on every failure.
#include "support/blocks.hpp"
#include "support/openssl_tools.hpp"
#include "support/test_env.hpp"

#include <functional>
#include <regex>
#include <sys/stat.h>

using namespace karst::test;

namespace {

class CertReplaceTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        ASSERT_FALSE(certificates().leaf.empty()) << "openssl could not make test certificates";
        leaf_ = certificates().leaf_path.c_str();
    }
    // What parameters 0 and 1 of a journal record carried.
    static std::string sent(const karst_emu_invoke_record &r, int i) {
        return std::string(reinterpret_cast<const char *>(r.params[i].input),
                           r.params[i].input_kept);
    }
    static Bytes sent_block(const karst_emu_invoke_record &r) { return bytes_of(sent(r, 1)); }
    // The ra_uid file with size bytes 0x00, 0x01, ...
    void write_ra_uid(size_t size) {
        mkdir(path("/tmp/attestation").c_str(), 0777);
        std::string uid;
        for (size_t i = 0; i < size; ++i) {
            uid += static_cast<char>(i);
        }
        write_file(path("/tmp/attestation/ra_uid"), uid);
    }
    bool exists(const std::string &inside) const {
        struct stat st {};
        return stat(path(inside).c_str(), &st) == 0;
    }
    int replace_ra_file(uint32_t index) {
        EXPECT_EQ(pta_open_session(), 0u);
        uintptr_t block[PTA20_ARGS_WORDS];
        pta20_args(block, index, 9, 0, reinterpret_cast<uintptr_t>(leaf_), 0, 0);
        const int rc = pta_invoke_cmd(PTA_DALU_CMD_REPLACE_RA_CRT, block);
        pta_close_session();
        return rc;
    }

    const char *leaf_ = nullptr;
};

std::string uri(int index) {
    return "Systems/1/Certificates/" + std::to_string(index) + '\0';
}

TEST_F(CertReplaceTest, FileIsSentInACertificateBlockUnderItsUri) {
    std::string out = capture_stdout([&] {
        EXPECT_EQ(pta20_crt_replace(0, leaf_, 0), -1);
        EXPECT_EQ(pta20_crt_replace(6, leaf_, 0), -1);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(karst_emu_calls(KARST_EMU_INIT), 0u) << "no session for a bad index";

    ASSERT_EQ(pta20_crt_replace(5, leaf_, 0x5a), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 11u);
    EXPECT_EQ(r.param_types, 0x01CCu);
    EXPECT_EQ(sent(r, 0), uri(5));
    EXPECT_EQ(r.params[1].size, 65536u);
    EXPECT_EQ(r.params[2].a, 0x5au);
    const Bytes block = sent_block(r);
    ASSERT_EQ(pta20_datablk_check(block.data(), static_cast<uint32_t>(block.size())), 0);
    const Bytes &cert = certificates().leaf;
    EXPECT_EQ(get(block, "Systems/1/Certificates/5"), std::string(cert.begin(), cert.end()));
    EXPECT_EQ(get(block, "RA_TID"), "<-1>");
}

TEST_F(CertReplaceTest, ImportSendsTheCallersBytesUnchanged) {
    const Bytes &cert = certificates().leaf;
    const auto n = static_cast<uint32_t>(cert.size());
    const std::string uri31(31, 'u');
    ASSERT_EQ(pta20_crt_replace_import(nullptr, cert.data(), n, 1), 0);
    ASSERT_EQ(pta20_crt_replace_import(uri31.c_str(), cert.data(), n, 2), 0);
    const auto records = journal();
    EXPECT_EQ(sent(records.at(0), 0), uri(0));
    EXPECT_EQ(sent_block(records.at(0)), cert) << "no data block in import mode";
    EXPECT_EQ(sent(records.at(1), 0), uri31 + '\0');

    // The secure world refuses bytes that are not a certificate.
    const std::string out =
        capture_stdout([&] { EXPECT_EQ(pta20_crt_replace_import("x", "junk", 4, 0), -1); });
    EXPECT_TRUE(is_error(out, "pta_invoke_replace_crt",
                         "TEEC_InvokeCommand failed with code 0xffff0005 origin 0x4"));
}

TEST_F(CertReplaceTest, RefusalsBeforeTheSecureWorld) {
    const uint8_t byte = 1;
    const std::string uri32(32, 'u');
    const std::string missing = path("/tmp/missing.der");
    const std::string empty = path("/tmp/empty.der");
    write_file(empty, "");
    ASSERT_EQ(pta_open_session(), 0u);
    struct Case {
        std::function<int()> call;
        std::string message;
    };
    const Case cases[] = {
        {[&] { return pta_invoke_replace_crt(11, 1, nullptr, 0, empty.c_str(), &byte, 1); },
         R"(\[E:pta_invoke_replace_crt:\d+\] Error parameters\n)"},
        {[&] { return pta_invoke_replace_ra_crt(27, 1, nullptr, 0, nullptr, &byte, 0); },
         R"(\[E:pta_invoke_replace_ra_crt:\d+\] Error parameters\n)"},
        {[&] { return pta_invoke_replace_crt_import(uri32.c_str(), &byte, 1, 0); },
         R"(\[E:pta_invoke_replace_crt:\d+\] long uri\n)"},
        {[&] { return pta_invoke_replace_crt(11, 1, nullptr, 0, missing.c_str(), nullptr, 0); },
         R"(\[E:readbin:\d+\] Failed to open file:.*\n)"
         R"(\[E:pta_invoke_replace_crt:\d+\] File .*/tmp/missing.der not exist\n)"},
        {[&] { return pta_invoke_replace_crt(11, 1, nullptr, 0, empty.c_str(), nullptr, 0); },
         R"(\[E:blk_set:\d+\] Incorrect datablk length 0\n)"
         R"(\[E:pta_invoke_replace_crt:\d+\] Failed to set key\[Systems/1/Certificates/1\]\n)"},
    };
    for (const Case &c : cases) {
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = c.call(); });
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(std::regex_match(out, std::regex(c.message))) << out;
    }
    pta_close_session();
    EXPECT_EQ(karst_emu_journal_count(), 0u);
}

TEST_F(CertReplaceTest, RaFileModeAddsRaTidAndArchivesTheAnswer) {
    write_ra_uid(20);
    ASSERT_EQ(replace_ra_file(4), 0);
    const auto r = journal().at(0);
    EXPECT_EQ(r.command, 27u);
    EXPECT_EQ(r.param_types, 0xC1CCu);
    EXPECT_EQ(r.params[3].size, 66560u);
    EXPECT_EQ(r.params[3].flags, static_cast<uint32_t>(TEEC_MEM_OUTPUT));
    EXPECT_EQ(get(sent_block(r), "RA_TID"), "\x07\x08\x09\x0a\x0b\x0c\x0d\x0e");

    const std::string answer = read_file(path("/tmp/attestation/ra_data.bin"));
    ASSERT_EQ(answer.size(), 66560u);
    EXPECT_NE(answer.find("tid=0708090a0b0c0d0e\n"), std::string::npos);
    EXPECT_TRUE(exists("/tmp/attestation/ra_data.tgz"));
    EXPECT_TRUE(exists("/nv1/ra_data.tgz"));
}

TEST_F(CertReplaceTest, RaTidIsLeftOutWithoutAUsableRaUidFile) {
    const std::pair<long, const char *> cases[] = {
        {-1, R"(\[E:readbin:\d+\] Failed to open file:.*/tmp/attestation/ra_uid\n)"
             R"(\[I:pta_invoke_replace_ra_crt:\d+\] File .*/tmp/attestation/ra_uid not exist\n)"},
        {0, ""},
        {14, R"(\[I:pta_invoke_replace_ra_crt:\d+\] File .*/ra_uid too short for RA_TID\n)"},
    };
    for (const auto &[uid_size, message] : cases) {
        if (uid_size >= 0) {
            write_ra_uid(static_cast<size_t>(uid_size));
        }
        karst_emu_journal_clear();
        int rc = 0;
        const std::string out = capture_stdout([&] { rc = replace_ra_file(2); });
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(std::regex_match(out, std::regex(message))) << out;
        EXPECT_EQ(get(sent_block(journal().at(0)), "RA_TID"), "<-1>");
    }

    // Import mode sends the caller's bytes: no block, no RA_TID even with a ra_uid file.
    write_ra_uid(20);
    const Bytes &cert = certificates().leaf;
    karst_emu_journal_clear();
    ASSERT_EQ(
        pta20_ra_crt_replace_import(nullptr, cert.data(), static_cast<uint32_t>(cert.size()), 0),
        0);
    EXPECT_EQ(sent_block(journal().at(0)), cert);
    EXPECT_NE(read_file(path("/tmp/attestation/ra_data.bin")).find("tid=0000000000000000\n"),
              std::string::npos);
}

TEST_F(CertReplaceTest, RaAnswerIsLostWhenItsDirectoryCannotBeMade) {
    ASSERT_EQ(rmdir(path("/tmp").c_str()), 0);
    write_file(path("/tmp"), "a file where the directory should be");
    const Bytes &cert = certificates().leaf;
    const std::string out = capture_stdout([&] {
        EXPECT_EQ(
            pta20_ra_crt_replace_import("ra", cert.data(), static_cast<uint32_t>(cert.size()), 0),
            -1);
    });
    EXPECT_TRUE(is_error(out, "pta_invoke_replace_ra_crt",
                         "Failed to create path (" + path("/tmp/attestation") + ")"));
    EXPECT_FALSE(exists("/nv1/ra_data.tgz"));
}

} // namespace
