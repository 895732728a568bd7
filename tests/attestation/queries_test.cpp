// SPDX-License-Identifier: Apache-2.0
// What the secure world is asked for: certificates (the DER walk over chains made in the test,
// malformed ones included), data blocks (what reaches the secure world, the file left, the
// refusals) and the provisioning query's yes, no and failure.
#include "attestation/att_support.hpp"

using namespace karst::test;

namespace {

constexpr int NOT_FOUND = static_cast<int>(TEEC_ERROR_ITEM_NOT_FOUND);
constexpr int BAD_FORMAT = static_cast<int>(TEEC_ERROR_BAD_FORMAT);
constexpr int BAD_PARAMETERS = static_cast<int>(TEEC_ERROR_BAD_PARAMETERS);
const std::string GET_CERT = R"(\[E:pta_invoke_dalu_get_certificate:\d+\] )";
const std::string BLK_GET = R"(\[E:pta_invoke_blk_get:\d+\] )";

using QueriesTest = KarstTest;

// Chains made in the test, each answered into a buffer of its own size (a certificate may fill
// it; without an answer the real chain does not fit 16 bytes); index 5 is one object, passed
// whole. Indexes are checked before the secure world; a failure clears the caller's buffer and
// leaves the size alone. The exported call hands back the size (word 3 of the dispatcher) and
// keeps it on failure.
TEST_F(QueriesTest, TheWalkFindsEachPositionAndReportsMalformedChainsAtTheFault) {
    const Bytes a = join({{0x30, 0x82, 0x01, 0x0a}, pattern(266, 1)}); // 270 bytes
    const Bytes ab = join({a, {0x30, 0x81, 0x80}, pattern(128, 2)});
    const Bytes five = {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x03, 1, 2, 3}; // 32-bit length 3
    const Bytes huge = {0x30, 0x84, 0xff, 0xff, 0xff, 0xff}; // reckoned in full, not wrapped
    // The answer, an index, the result, and the certificate (hex) or the message.
    const std::tuple<Bytes, int32_t, int, std::string> rows[] = {
        {ab, 0, NOT_FOUND, R"(Certificate 3 \(cert_index 0\) not found in concatenated data)"},
        {ab, 1, NOT_FOUND, R"(Certificate 2 \(cert_index 1\) not found in concatenated data)"},
        {ab, 5, 0, hex(ab)},
        {join({{0x30, 0x80}, a}), 4, 0, "30 80"}, // a long form without length bytes: length 0
        {five, 4, 0, hex(five)},
        {join({a, {0x30}}), 4, 0, hex(a)}, // a trailing byte matters only when sought past
        {join({a, {0x30}}), 2, BAD_FORMAT, "Invalid certificate format at offset 270"},
        {join({a, {0x04, 0x00}}), 2, BAD_FORMAT,
         R"(Invalid certificate tag at offset 270: 0x04 \(expected 0x30\))"},
        {join({a, {0x30, 0x82, 0x01}}), 2, BAD_FORMAT, "Invalid length encoding at offset 270"},
        {join({a, {0x30, 0x10, 1, 2, 3}}), 2, BAD_FORMAT,
         "Certificate 1 length 18 exceeds buffer size 5"},
        {huge, 4, BAD_FORMAT, "Certificate 0 length 4294967301 exceeds buffer size 6"},
        {{}, 4, NOT_FOUND, "TEEC_InvokeCommand failed: 0xffff0010 origin 0x4"},
        {ab, 3, NOT_FOUND, "Certificate index 3 not available"},
        {ab, -1, BAD_PARAMETERS, "Invalid certificate index -1"},
        {ab, 6, BAD_PARAMETERS, "Invalid certificate index 6"},
    };
    for (const auto &[data, index, rc, expected] : rows) {
        karst_emu_journal_clear();
        karst_emu_answer(PTA_DALU_CMD_GET_CERTIFICATE, 1, data.data(), data.size());
        Bytes buf(data.empty() ? 16 : data.size(), 0xAA);
        auto size = static_cast<uint32_t>(buf.size());
        const auto get = [&, i = index] {
            return pta_invoke_dalu_get_certificate(34, i, buf.data(), &size);
        };
        const std::string out = printed(rc, get, true);
        EXPECT_TRUE(rc == 0 ? hex(buf.data(), size) + out == expected
                            : matches(out, GET_CERT + expected) && size == buf.size() &&
                                  buf == Bytes(size, 0))
            << index << ": " << out;
        const std::string asked = "34 00c1 v" + std::to_string(index == 5 ? 5 : 4) + ",0 " +
                                  std::to_string(buf.size()) + "o - -";
        EXPECT_EQ(shape(), index >= 0 && index != 3 && index <= 5 ? asked : "0 0000 - - - -");
    }
    karst_emu_answer(PTA_DALU_CMD_GET_CERTIFICATE, 1, ab.data(), ab.size());
    uint8_t buf[512];
    uint32_t size = sizeof buf;
    EXPECT_EQ(pta20_get_cert(4, buf, &size), 0);
    EXPECT_TRUE(Bytes(buf, buf + size) == a) << size;
    size = 100;
    printed(-1, [&] { return pta20_get_cert(4, buf, &size); });
    EXPECT_EQ(size, 100u);
}

// Each type reaches the secure world and each call rewrites the file whole (through the
// dispatcher too: type in word 0, number in word 1, name in word 4); refusals, with no command,
// and failures leave it as it was. Without its folder the message has no error prefix.
TEST_F(QueriesTest, EveryBlockTypeReachesTheSecureWorldAndTheFileIsAlwaysWhole) {
    const std::string file = path("/tmp/datablk.bin");
    const auto whole = [](uint32_t type, uint32_t value, const std::string &name) {
        std::string text = "KARST-BLOCK v1\ntype=" + std::to_string(type) +
                           "\nvalue=" + std::to_string(value) + "\nname=" + name + "\n";
        text.resize(65536, '\0');
        return text;
    };
    const auto blk = [](uint32_t type, uint32_t value, const char *name) {
        return in_session([&] { return pta_invoke_blk_get(16, type, value, name); });
    };
    for (uint32_t type = 0; type <= 3; ++type) {
        const uint32_t value = 0xFFFFFFF0u + type;
        EXPECT_EQ(blk(type, value, "device-certs"), 0);
        EXPECT_EQ(shape(), "16 0cc1 v" + std::to_string(type) + "," + std::to_string(value) +
                               " 12i 65536io -");
        EXPECT_TRUE(read_file(file) == whole(type, value, "device-certs")) << type;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, 2, 77, 0, reinterpret_cast<uintptr_t>("viadispatcher"), 0, 0);
    EXPECT_EQ(in_session([&] { return pta_invoke_cmd(PTA_DALU_CMD_BLK_GET, block); }), 0);
    karst_emu_journal_clear();
    expect_calls({{[&] { return blk(4, 0, "x"); }, -1, BLK_GET + "Unsupported datablk type 4\n"},
                  {[&] { return blk(~0u, 0, "x"); }, -1, BLK_GET + "Unsupported datablk type -1\n"},
                  {[&] { return blk(0, 0, nullptr); }, -1, BLK_GET + "Missing datablk name\n"},
                  {[&] { return blk(0, 0, "missing-block"); }, NOT_FOUND,
                   BLK_GET + "TEEC_InvokeCommand failed with code 0xffff0008 origin 0x4\n"}});
    EXPECT_EQ(karst_emu_journal_count(), 1u) << "only the last reaches the secure world";
    EXPECT_TRUE(read_file(file) == whole(2, 77, "viadispatcher"));
    std::filesystem::remove_all(path("/tmp"));
    EXPECT_EQ(printed(-1, [&] { return blk(0, 0, "x"); }), "Failed to open file (" + file + ")\n");
}

// Yes for the device key and the factory chain; no for a certificate not replaced yet, for an
// unknown question and for an answer without a status byte; a no is silent. A caller's buffer
// keeps the answer, cleared before the command.
TEST_F(QueriesTest, ProvisioningQueryYesNoAndFailure) {
    EXPECT_EQ(printed(0, [] { return pta20_prov_query(0) + pta20_prov_query(1); }), "");
    EXPECT_EQ(printed(-2, [] { return pta20_prov_query(2) + pta20_prov_query(255); }), "");
    EXPECT_EQ(shape(), "22 00c1 v255,0 64o - -");
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, "", 0);
    EXPECT_EQ(pta20_prov_query(0), -1) << "an answer without a status byte is no";
    karst_emu_answer(PTA_DALU_CMD_PROV_QUERY, 1, nullptr, 0);
    uint8_t status[16];
    std::fill(std::begin(status), std::end(status), 0xEE);
    EXPECT_EQ(in_session([&] { return pta_invoke_prov_query(22, 7, status, sizeof status); }), -1);
    EXPECT_EQ(hex(status, 2), "01 00") << "the answer no, then cleared bytes";
    EXPECT_EQ(shape(), "22 00c1 v7,0 16o - -");
}

} // namespace
