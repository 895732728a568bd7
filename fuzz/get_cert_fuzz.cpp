// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary secure-world answers to the certificate retrieval: the emulator answers
// command 34 with the fuzz input, and pta_invoke_dalu_get_certificate walks it. Besides memory
// safety, the rules that hold for any answer:
// - success hands back, at the start of the caller's buffer, exactly the bytes of one
//   certificate of the answer (or, for index 5, the whole answer), and zeros after them;
// - failure leaves the caller's buffer cleared and its size unchanged;
// - every registration is released.
// An input: byte 0 the certificate index plus 1; bytes 1-2 the caller's buffer size,
// big-endian; the rest what the secure world answers. Seeds: fuzz/corpus/get_cert.
#include "attestation/der_chain.hpp"
#include "karst.h"
#include "karst_emu.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr std::size_t INPUT_HEADER = 3; // index, buffer size

#define require(ok) check_rule(ok, __LINE__)
void check_rule(bool ok, int line) {
    if (!ok) {
        std::fprintf(stderr, "get_cert_fuzz: rule at line %d broken\n", line);
        std::abort();
    }
}

std::string g_root;

void remove_root() {
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
}

bool all_zero(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != 0) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // A run root of its own: the emulator keeps its state there.
    char templ[] = "/tmp/karst-fuzz-XXXXXX";
    if (mkdtemp(templ) == nullptr || setenv("KARST_ROOT", templ, 1) != 0 ||
        karst_emu_setup(templ) != 0) {
        std::abort();
    }
    g_root = templ;
    std::atexit(remove_root);
    if (pta_open_session() != 0) {
        std::abort();
    }
    karst_emu_journal_input_limit(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < INPUT_HEADER) {
        return 0;
    }
    const int32_t index = static_cast<int32_t>(data[0]) - 1;
    const uint32_t capacity = static_cast<uint32_t>(data[1]) << 8 | data[2];
    const uint8_t *answer = data + INPUT_HEADER;
    const size_t answer_len = size - INPUT_HEADER;
    karst_emu_answer(PTA_DALU_CMD_GET_CERTIFICATE, 1, answer, answer_len);

    // The caller's buffer, exactly its size, so that the sanitizer sees any write past it.
    std::vector<uint8_t> buf(capacity, 0xA5);
    uint32_t got = capacity;
    const int rc = pta_invoke_dalu_get_certificate(PTA_DALU_CMD_GET_CERTIFICATE, index,
                                                   capacity != 0 ? buf.data() : nullptr, &got);
    karst_emu_journal_clear();

    karst_emu_stats stats{};
    karst_emu_get_stats(&stats);
    require(stats.registered == 0);
    if (rc != 0) {
        require(got == capacity);
        require(all_zero(buf.data(), buf.size()));
        return 0;
    }
    require(got <= capacity && got <= answer_len);
    require(all_zero(buf.data() + got, capacity - got));
    if (index == 5) {
        require(got == answer_len && std::memcmp(buf.data(), answer, got) == 0);
        return 0;
    }
    // One certificate of the answer: the walk finds it at some position at this very size.
    const uint32_t position = index == 4 ? 0 : static_cast<uint32_t>(3 - index);
    const karst::att::DerWalk walk = karst::att::walk_der_chain({answer, answer_len}, position);
    require(walk.outcome == karst::att::DerWalk::Outcome::found);
    require(walk.size == got && buf[0] == 0x30);
    require(std::memcmp(buf.data(), answer + walk.offset, got) == 0);
    return 0;
}
