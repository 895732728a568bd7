// SPDX-License-Identifier: Apache-2.0
// Remote attestation refresh: archives made with real tar, the split of the RA data file into
// data and signature as the secure world receives them, acceptance and rejection, the refusals;
// and archive paths that reach tar as one literal word whatever they hold (no other command runs,
// nothing else changes). The round trip from an RA certificate replacement is in
// karstctl_certs_test.
#include "attestation/att_support.hpp"

#include <unistd.h>

using namespace karst::test;

namespace {

constexpr int REJECTED = static_cast<int>(0xFFFF3074u);
const std::string REFRESH = R"(\[E:_pta_invoke_ra_refresh:\d+\] )";

class RaRefreshTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        const Bytes cert = to_bytes("ra certificate");
        EXPECT_EQ(karst_emu_ra_issue(cert.data(), cert.size(), ra_.data(), ra_.size()), 66560u);
    }
    // pta_invoke_ra_refresh in a session of its own, expected to return rc; what it printed.
    static std::string refresh(const char *archive, int rc, uint32_t capacity = 0) {
        return printed(
            rc, [&] { return pta_invoke_ra_refresh(26, archive, capacity); }, true);
    }
    std::string data_file() const { return path("/tmp/attestation/ra_data.bin"); }
    Bytes ra_ = Bytes(66560); // RA data as issued
};

TEST_F(RaRefreshTest, TheArchiveIsUnpackedSplitAndAcceptedOrRejected) {
    make_tgz(path("/nv1/ra_data.tgz"), {{"ra_data.bin", ra_}});
    EXPECT_EQ(refresh(nullptr, 0, 0x20000), "") << "the capacity is taken and ignored";
    EXPECT_EQ(shape(), "26 00cc 65536i 1024i - -");
    EXPECT_TRUE(to_bytes(sent(0) + sent(1)) == ra_);
    // Dispatcher number 26: the archive in word 4, the capacity in word 3.
    const std::string archive = path("/in.tgz");
    std::filesystem::rename(path("/nv1/ra_data.tgz"), archive);
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 0, 0, 0, reinterpret_cast<uintptr_t>(archive.c_str()), 5, 0);
    EXPECT_EQ(in_session([&] { return pta_invoke_cmd(PTA_DALU_CMD_RA_REFRESH, block); }), 0);
    // One bit of the data changed: the signature no longer holds, which the exported call maps;
    // any other failure is -1 there.
    ra_[70] ^= 1;
    make_tgz(archive, {{"ra_data.bin", ra_}});
    EXPECT_TRUE(matches(refresh(archive.c_str(), REJECTED),
                        REFRESH + "TEEC_InvokeCommand failed with code 0xffff3074 origin 0x4\n"));
    printed(static_cast<int>(0xFFFF6131u), [&] { return pta20_ra_refresh(archive.c_str(), 0); });
    karst_emu_fail_nth(KARST_EMU_INVOKE, 1, TEEC_ERROR_GENERIC);
    printed(-1, [&] { return pta20_ra_refresh(archive.c_str(), 0); });
    // Exactly 1,024 bytes: no data at all, the whole file is the signature.
    make_tgz(archive, {{"ra_data.bin", pattern(1024)}});
    refresh(archive.c_str(), REJECTED);
    EXPECT_EQ(shape(), "26 00cc 0i 1024i - -");
    EXPECT_TRUE(to_bytes(sent(1)) == pattern(1024));
}

TEST_F(RaRefreshTest, MissingArchiveAndMissingOrShortDataFileAreRefused) {
    EXPECT_TRUE(matches(refresh(nullptr, static_cast<int>(TEEC_ERROR_ACCESS_DENIED)),
                        R"(\[I:_pta_invoke_ra_refresh:\d+\] No valid RA file found!\n)"));
    EXPECT_FALSE(exists(path("/tmp/attestation"))) << "nothing is made before the archive";
    const std::string other = path("/other.tgz");
    make_tgz(other, {{"something_else.bin", pattern(2000)}});
    EXPECT_TRUE(matches(refresh(other.c_str(), -1), R"(\[E:readbin:\d+\] Failed to open file:)" +
                                                        data_file() + "\n" + REFRESH + "File " +
                                                        data_file() + " not exist\n"));
    // Shorter than its signature: refused before the secure world.
    const std::string short_archive = path("/short.tgz");
    make_tgz(short_archive, {{"ra_data.bin", pattern(1023)}});
    EXPECT_TRUE(matches(refresh(short_archive.c_str(), -1),
                        REFRESH + "RA data file " + data_file() +
                            " is too short: 1023 bytes, at least 1024 expected\n"));
    EXPECT_EQ(karst_emu_journal_count(), 0u);
    // A member named to climb out of the directory at any depth refuses the archive.
    make_dirs(path("/w/d"));
    write_bytes(path("/w/ra_data.bin"), ra_);
    ASSERT_EQ(karst::shell::run("tar -C " + path("/w") + " -czf " + other +
                                " ra_data.bin --transform=s,^d,d/../../x, d"),
              0);
    EXPECT_TRUE(matches(refresh(other.c_str(), -1), REFRESH + "Refused archive " + other +
                                                        ": a name outside the directory: "
                                                        "d/../../x/\n"));
}

// Archive paths with every kind of shell syntax in them, and relative ones (taken from the
// caller's working directory, even one that begins with '-' or climbs with "../"): tar unpacks
// exactly the archive named and nothing else under the run root changes.
TEST_F(RaRefreshTest, ArchivePathsReachTarAsOneLiteralWord) {
    const std::string in = path("/in/");
    make_dirs(in + "work");
    std::vector<std::string> names(
        {"ra;touch canary;.tgz", "$(touch canary).tgz", "`touch canary`.tgz", "it's \"quoted\".tgz",
         "new\nline;touch canary.tgz", "sp ace & canary.tgz", "x|touch canary.tgz", "*.tgz",
         "ra.tgz", "work/--to-command=touch canary"});
    for (std::string &name : names) {
        make_tgz(in + name, {{"ra_data.bin", ra_}});
        name.insert(0, in);
    }
    names.back() = "--to-command=touch canary"; // relative, as are the two below
    names.insert(names.end(), {"../ra.tgz", "../work/../ra.tgz"});
    make_dirs(path("/tmp/attestation"));
    write_bytes(data_file(), ra_);
    const Tree before = snapshot(root(), {"var/lib/karst-emulator"});
    for (const std::string &name : names) {
        std::filesystem::remove(data_file());
        EXPECT_EQ(in_child([&] {
                      return chdir((in + "work").c_str()) == 0 &&
                                     pta20_ra_refresh(name.c_str(), 0) == 0
                                 ? 0
                                 : 1;
                  }),
                  0)
            << name;
    }
    EXPECT_EQ(changes(before, snapshot(root(), {"var/lib/karst-emulator"})), "");
}

} // namespace
