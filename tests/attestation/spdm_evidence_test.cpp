// SPDM evidence: the KLV length field, the file name rules, the ten-record limits, records that do
// not fit, and the root CAs.
#include "attestation/att_support.hpp"
#include "attestation/spdm_evidence.hpp"

#include <algorithm>
#include <filesystem>
#include <sstream>

using namespace karst::test;
using karst::att::klv_append;

namespace {

constexpr uint32_t CAPACITY = 65536;

class SpdmEvidenceTest : public KarstTest {
  protected:
    std::string chains(const std::string &name = "") const {
        return path("/tmp/spdm/aoc/boot_run/spdm_saved_cert_chains") + (name.empty() ? "" : "/") +
               name;
    }
    std::string measurements(const std::string &name = "") const {
        return path("/tmp/spdm/aoc/boot_run/spdm_saved_measurements_bins") +
               (name.empty() ? "" : "/") + name;
    }
    // Runs both collectors into a fresh buffer; returns the used part and what they printed.
    std::pair<Bytes, std::string> collect() {
        Bytes buffer(CAPACITY, 0);
        uint32_t used = 0;
        const std::string out = capture_stdout([&] {
            karst::att::spdm_collect_cert_chains(buffer.data(), CAPACITY, &used);
            karst::att::spdm_collect_measurements(buffer.data(), CAPACITY, &used);
        });
        EXPECT_TRUE(std::all_of(buffer.begin() + used, buffer.end(), [](uint8_t b) { return !b; }));
        buffer.resize(used);
        return {buffer, out};
    }
};

std::vector<std::string> sorted_lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(std::regex_replace(line, std::regex(R"(^(\[[EI]:\w+):\d+\])"), "$1:N]"));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The exact bytes of a whole record are checked in the dump's block; here the length field's
// width, which follows the value's size.
TEST_F(SpdmEvidenceTest, LengthFieldWidthFollowsTheValueSize) {
    for (const auto &[size, field] :
         std::vector<std::pair<size_t, Bytes>>{{1, {0x02, 0x01, 0x01}},
                                               {255, {0x02, 0x01, 0xff}},
                                               {256, {0x02, 0x02, 0x01, 0x00}},
                                               {65535, {0x02, 0x02, 0xff, 0xff}},
                                               {65536, {0x02, 0x03, 0x01, 0x00, 0x00}}}) {
        Bytes buf(70000, 0);
        uint32_t offset = 3;
        const Bytes value = pattern(size);
        ASSERT_EQ(
            klv_append("k", value.data(), static_cast<uint32_t>(size), buf.data(), 70000, &offset),
            0);
        EXPECT_EQ(offset, 3 + 3 + field.size() + size);
        EXPECT_EQ(Bytes(buf.begin() + 3, buf.begin() + 6), Bytes({0x16, 0x01, 'k'}));
        EXPECT_EQ(Bytes(buf.begin() + 6, buf.begin() + 6 + static_cast<long>(field.size())), field);
    }
}

TEST_F(SpdmEvidenceTest, OnlyVisibleDerFilesAreTakenAndTheKeyIsCutAtTheLastDot) {
    make_dirs(chains());
    for (const char *name : {"chain.DER", "chain", ".chain.der", "chain.der.bak", "a.b.der"}) {
        write_bytes(chains(name), pattern(10));
    }
    write_bytes(chains("x.der"), {});
    std::filesystem::create_symlink(path("/nowhere"), chains("broken.der"));
    auto [buffer, out] = collect();
    const auto pairs = klv_pairs(buffer.data(), buffer.size());
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].first, "a.b");
    EXPECT_EQ(pairs[0].second, pattern(10));
    EXPECT_EQ(
        sorted_lines(out),
        (std::vector<std::string>{
            "[E:spdm_collect_cert_chains:N] Invalid certificate file size: " + chains("x.der"),
            "[E:spdm_collect_cert_chains:N] Refused " + chains("broken.der") + ": a symbolic link",
            "[I:spdm_collect_measurements:N] SPDM measurements directory not found: " +
                measurements(),
        }));
}

TEST_F(SpdmEvidenceTest, TenRecordsOfEachKindAtMost) {
    make_dirs(chains());
    for (int i = 0; i < 12; ++i) {
        write_bytes(chains("c" + std::to_string(i) + ".der"), pattern(100, i));
    }
    for (const char *sub : {"gpu0", "gpu1", "gpu2"}) {
        make_dirs(measurements(sub));
        for (int i = 0; i < 5; ++i) {
            write_bytes(measurements(std::string(sub) + "/m" + std::to_string(i) + ".bin"),
                        pattern(50, i));
        }
    }
    auto [buffer, out] = collect();
    EXPECT_EQ(out, "");
    const auto pairs = klv_pairs(buffer.data(), buffer.size());
    ASSERT_EQ(pairs.size(), 20u);
    for (size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(pairs[i].first[0], i < 10 ? 'c' : 'm') << "chains first, then measurements";
        EXPECT_EQ(pairs[i].second.size(), i < 10 ? 100u : 50u);
    }
}

TEST_F(SpdmEvidenceTest, MeasurementsAreKeyedByFileNameAloneAcrossSubdirectories) {
    make_dirs(measurements("gpu0"));
    make_dirs(measurements("gpu1"));
    make_dirs(measurements(".hidden"));
    write_bytes(measurements("gpu0/m.bin"), pattern(20, 1));
    write_bytes(measurements("gpu1/m.bin"), pattern(30, 2));
    write_bytes(measurements("gpu1/m.BIN"), pattern(30, 2));
    write_bytes(measurements(".hidden/h.bin"), pattern(30, 2));
    write_bytes(measurements("top.bin"), pattern(5)); // a plain file: skipped silently
    auto [buffer, out] = collect();
    EXPECT_TRUE(matches(
        out, R"(\[I:spdm_collect_cert_chains:\d+\] SPDM certificates directory not found: )" +
                 re_escape(chains()) + "\n"));
    const auto pairs = klv_pairs(buffer.data(), buffer.size());
    ASSERT_EQ(pairs.size(), 2u);
    EXPECT_EQ(pairs[0].first, "m");
    EXPECT_EQ(pairs[1].first, "m");
    std::vector<Bytes> values = {pairs[0].second, pairs[1].second};
    std::sort(values.begin(), values.end(),
              [](const Bytes &a, const Bytes &b) { return a.size() < b.size(); });
    EXPECT_EQ(values[0], pattern(20, 1));
    EXPECT_EQ(values[1], pattern(30, 2));
}

TEST_F(SpdmEvidenceTest, ARecordThatDoesNotFitIsSkippedAndTheScanGoesOn) {
    make_dirs(chains());
    write_bytes(chains("huge.der"), pattern(70000));
    write_bytes(chains("small.der"), pattern(9));
    auto [buffer, out] = collect();
    EXPECT_NE(out.find("] Failed to append certificate KLV: huge\n"), std::string::npos) << out;
    const auto pairs = klv_pairs(buffer.data(), buffer.size());
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].first, "small");

    // Twelve files of which one cannot fit: it is not counted, so ten others are recorded.
    write_bytes(chains("small.der"), pattern(9));
    for (int i = 0; i < 10; ++i) {
        write_bytes(chains("s" + std::to_string(i) + ".der"), pattern(9));
    }
    auto [buffer2, out2] = collect();
    EXPECT_EQ(klv_pairs(buffer2.data(), buffer2.size()).size(), 10u);
}

TEST_F(SpdmEvidenceTest, AppendFillsTheBufferToItsLastByteAndNotOneMore) {
    const Bytes value = pattern(90);
    const uint32_t record = 4 + 3 + 1 + 90; // key "abc", one length byte
    Bytes buf(200, 0xEE);
    uint32_t offset = 200 - record;
    EXPECT_EQ(klv_append("abc", value.data(), 90, buf.data(), 200, &offset), 0);
    EXPECT_EQ(offset, 200u);

    Bytes untouched(200, 0xEE);
    offset = 200 - record + 1;
    EXPECT_EQ(klv_append("abc", value.data(), 90, untouched.data(), 200, &offset), -2);
    EXPECT_EQ(offset, 200 - record + 1);
    EXPECT_EQ(untouched, Bytes(200, 0xEE));
    offset = 201; // an offset already past the capacity
    EXPECT_EQ(klv_append("abc", value.data(), 90, untouched.data(), 200, &offset), -2);

    offset = 0;
    EXPECT_EQ(klv_append(nullptr, value.data(), 90, buf.data(), 200, &offset), -1);
    EXPECT_EQ(klv_append("abc", value.data(), 90, nullptr, 200, &offset), -1);
    EXPECT_EQ(klv_append("abc", value.data(), 90, buf.data(), 200, nullptr), -1);
    // A key whose length does not fit its one length byte cannot be read back: refused.
    EXPECT_EQ(klv_append(std::string(256, 'k').c_str(), value.data(), 1, buf.data(), 200, &offset),
              -1);
    EXPECT_EQ(klv_append("", value.data(), 1, buf.data(), 200, &offset), -1);
    EXPECT_EQ(offset, 0u);
    Bytes empty_value(8, 0);
    EXPECT_EQ(klv_append("k", nullptr, 0, empty_value.data(), 8, &offset), 0);
    EXPECT_EQ(empty_value, Bytes({0x16, 0x01, 'k', 0x02, 0x01, 0x00, 0, 0}));
}

TEST_F(SpdmEvidenceTest, RootCasAreStoredUnderTheirKeysAndMissingOnesAreReported) {
    write_bytes(path("/etc/defaults/spdm_dalu_rootCA.der"), pattern(700, 5));
    Bytes block = new_block(65536, DATABLK_MAGIC_ATT);
    std::string out = capture_stdout([&] { karst::att::spdm_add_root_cas(block.data()); });
    EXPECT_TRUE(matches(out, R"(\[I:spdm_add_root_cas:\d+\] SPDM Root CA file not found: )" +
                                 re_escape(path("/etc/defaults/spdm_nv_rootCA.der")) + "\n"));
    const auto pairs = block_pairs(block.data(), block.size());
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].first, root_ca_keys[0]);
    EXPECT_EQ(pairs[0].second, pattern(700, 5));

    // Without a block every store fails with its own message; an empty file is refused first.
    write_bytes(path("/etc/defaults/spdm_nv_rootCA.der"), {});
    out = capture_stdout([&] { karst::att::spdm_add_root_cas(nullptr); });
    EXPECT_TRUE(matches(out, "Invalid arguments: name = " + re_escape(root_ca_keys[0]) + "\n" +
                                 R"(\[E:spdm_add_root_cas:\d+\] Failed to set Root CA KLV key \[)" +
                                 re_escape(root_ca_keys[0]) + R"(\] \(rc: -1\)\n)" +
                                 R"(\[E:spdm_add_root_cas:\d+\] Invalid Root CA file size: )" +
                                 re_escape(path("/etc/defaults/spdm_nv_rootCA.der")) + "\n"));
}

} // namespace
