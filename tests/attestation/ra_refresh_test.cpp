// Remote attestation refresh: archives made with real tar, the split of the RA data file into
// data and signature as the secure world receives them, acceptance and rejection, and every
// failure of the table of results.
#include "attestation/att_support.hpp"

#include <filesystem>

using namespace karst::test;

namespace {

constexpr size_t RA_SIZE = 66560;
constexpr int ACCESS_DENIED = static_cast<int>(0xFFFF0001u);
constexpr int RA_REJECTED = static_cast<int>(0xFFFF3074u);
constexpr int REFRESH_REJECTED = static_cast<int>(0xFFFF6131u);

class RaRefreshTest : public KarstTest {
  protected:
    Bytes issued() {
        Bytes ra(RA_SIZE);
        const Bytes cert = to_bytes("ra certificate");
        EXPECT_EQ(karst_emu_ra_issue(cert.data(), cert.size(), ra.data(), ra.size()), RA_SIZE);
        return ra;
    }
    // Runs _pta_invoke_ra_refresh in an open session.
    int body(const char *archive, uint32_t capacity, std::string &out) {
        EXPECT_EQ(pta_open_session(), 0u);
        int rc = 0;
        out = capture_stdout([&] { rc = _pta_invoke_ra_refresh(26, archive, capacity); });
        pta_close_session();
        return rc;
    }
};

TEST_F(RaRefreshTest, TheDefaultArchiveIsUnpackedSplitAndAccepted) {
    const Bytes ra = issued();
    make_tgz(path("/nv1/ra_data.tgz"), {{"ra_data.bin", ra}});
    for (uint32_t capacity : {0u, 100u, 0x10400u, 0x20000u}) {
        karst_emu_journal_clear();
        std::string out;
        EXPECT_EQ(body(nullptr, capacity, out), 0) << capacity;
        EXPECT_EQ(out, "");
        const auto records = journal();
        ASSERT_EQ(records.size(), 1u);
        const karst_emu_invoke_record &r = records[0];
        EXPECT_EQ(r.command, 26u);
        EXPECT_EQ(r.param_types, 0x00CCu);
        EXPECT_EQ(r.params[0].size, 65536u);
        EXPECT_EQ(r.params[1].size, 1024u);
        EXPECT_EQ(r.params[0].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
        EXPECT_EQ(r.params[1].flags, static_cast<uint32_t>(TEEC_MEM_INPUT));
        EXPECT_TRUE(std::equal(ra.begin(), ra.begin() + 65536, r.params[0].input));
        EXPECT_TRUE(std::equal(ra.begin() + 65536, ra.end(), r.params[1].input));
    }
    EXPECT_EQ(pta20_ra_refresh(nullptr, 0), 0);
    EXPECT_EQ(read_bytes(path("/tmp/attestation/ra_data.bin")), ra);
}

TEST_F(RaRefreshTest, RejectedDataIsMappedByTheExportedCall) {
    Bytes ra = issued();
    ra[70] ^= 1; // one bit of the data: the signature no longer holds
    make_tgz(path("/in/tampered.tgz"), {{"ra_data.bin", ra}});
    std::string out;
    EXPECT_EQ(body(path("/in/tampered.tgz").c_str(), 0, out), RA_REJECTED);
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_ra_refresh:\d+\] TEEC_InvokeCommand failed )"
                             R"(with code 0xffff3074 origin 0x4\n)"));
    capture_stdout([&] {
        EXPECT_EQ(pta20_ra_refresh(path("/in/tampered.tgz").c_str(), 0), REFRESH_REJECTED);
    });

    // Exactly 1,024 bytes: no data at all, the whole file is the signature.
    make_tgz(path("/in/sig_only.tgz"), {{"ra_data.bin", pattern(1024)}});
    karst_emu_journal_clear();
    EXPECT_EQ(body(path("/in/sig_only.tgz").c_str(), 0, out), RA_REJECTED);
    ASSERT_EQ(journal().size(), 1u);
    EXPECT_EQ(journal()[0].params[0].size, 0u);
    EXPECT_TRUE(std::equal(journal()[0].params[1].input, journal()[0].params[1].input + 1024,
                           pattern(1024).begin()));

    // Any other failure is -1 at the exported call.
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    capture_stdout([&] { EXPECT_EQ(pta20_ra_refresh(path("/in/sig_only.tgz").c_str(), 0), -1); });
}

TEST_F(RaRefreshTest, MissingArchiveAndMissingOrShortDataFileAreRefused) {
    std::string out;
    EXPECT_EQ(body(nullptr, 0, out), ACCESS_DENIED);
    EXPECT_TRUE(matches(out, R"(\[I:_pta_invoke_ra_refresh:\d+\] No valid RA file found!\n)"));
    EXPECT_EQ(body("", 0, out), ACCESS_DENIED);
    capture_stdout([&] { EXPECT_EQ(pta20_ra_refresh(nullptr, 0), -1); });
    EXPECT_FALSE(exists(path("/tmp/attestation"))) << "nothing is made before the archive";
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    const std::string data_file = path("/tmp/attestation/ra_data.bin");
    make_tgz(path("/in/other.tgz"), {{"something_else.bin", pattern(2000)}});
    EXPECT_EQ(body(path("/in/other.tgz").c_str(), 0, out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:readbin:\d+\] Failed to open file:)" + re_escape(data_file) +
                                 "\n" + R"(\[E:_pta_invoke_ra_refresh:\d+\] File )" +
                                 re_escape(data_file) + " not exist\n"));
    EXPECT_TRUE(exists(path("/tmp/attestation/something_else.bin")));

    // A data file left by an earlier extraction is what gets read when the archive has none.
    const Bytes ra = issued();
    write_bytes(data_file, ra);
    EXPECT_EQ(body(path("/in/other.tgz").c_str(), 0, out), 0);

    // Shorter than its signature: refused before the secure world.
    make_tgz(path("/in/short.tgz"), {{"ra_data.bin", pattern(1023)}});
    karst_emu_journal_clear();
    EXPECT_EQ(body(path("/in/short.tgz").c_str(), 0, out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_ra_refresh:\d+\] RA data file )" +
                                 re_escape(data_file) +
                                 " is too short: 1023 bytes, at least 1024 expected\n"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);

    // The extraction directory cannot be made: a file stands in its way's parent.
    std::filesystem::remove_all(path("/tmp/attestation"));
    std::filesystem::remove_all(path("/tmp"));
    write_file(path("/tmp"), "not a directory");
    EXPECT_EQ(body(path("/in/short.tgz").c_str(), 0, out), -1);
    EXPECT_TRUE(matches(out, R"(\[E:_pta_invoke_ra_refresh:\d+\] Failed to create path \()" +
                                 re_escape(path("/tmp/attestation")) + R"(\)\n)"));
}

TEST_F(RaRefreshTest, DispatcherEntry) {
    make_tgz(path("/nv1/ra_data.tgz"), {{"ra_data.bin", issued()}});
    // Dispatcher number 26: the archive in word 4, the capacity in word 3.
    ASSERT_EQ(pta_open_session(), 0u);
    const std::string archive = path("/nv1/ra_data.tgz");
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(archive.c_str()), 5, 0);
    EXPECT_EQ(pta_invoke_cmd(PTA_DALU_CMD_RA_REFRESH, block), 0);
    EXPECT_EQ(pta_invoke_ra_refresh(26, archive.c_str(), 0), 0);
    pta_close_session();
}

} // namespace
