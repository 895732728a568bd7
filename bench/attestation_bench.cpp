// SPDX-License-Identifier: Apache-2.0
// Attestation costs: walking a certificate chain as the secure world returns it (the device's
// four certificates, and 64 KiB of tiny items that the walk must cross to the end), and packing
// the SPDM evidence buffer (ten records of 6,000 bytes).
#include "attestation/der_chain.hpp"
#include "attestation/spdm_evidence.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

// An item of content bytes with its tag and shortest DER length.
void append_item(std::vector<uint8_t> &out, uint32_t content) {
    out.push_back(0x30);
    if (content < 0x80) {
        out.push_back(static_cast<uint8_t>(content));
    } else if (content <= 0xFF) {
        out.insert(out.end(), {0x81, static_cast<uint8_t>(content)});
    } else {
        out.insert(out.end(),
                   {0x82, static_cast<uint8_t>(content >> 8), static_cast<uint8_t>(content)});
    }
    out.insert(out.end(), content, 0x5A);
}

void BM_walk_device_chain(benchmark::State &state) {
    std::vector<uint8_t> chain;
    for (uint32_t content : {1100u, 700u, 230u, 420u}) {
        append_item(chain, content);
    }
    for (auto _ : state) {
        const auto walk = karst::att::walk_der_chain(chain, 3);
        benchmark::DoNotOptimize(walk);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chain.size()));
}
BENCHMARK(BM_walk_device_chain);

void BM_walk_64k_of_tiny_items(benchmark::State &state) {
    std::vector<uint8_t> data;
    while (data.size() + 2 <= 65536) {
        append_item(data, 0);
    }
    for (auto _ : state) {
        const auto walk = karst::att::walk_der_chain(data, 40000); // beyond the end
        benchmark::DoNotOptimize(walk);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_walk_64k_of_tiny_items);

void BM_pack_evidence_buffer(benchmark::State &state) {
    const std::vector<uint8_t> value(6000, 0xA5);
    std::vector<uint8_t> buffer(karst::att::SPDM_KLV_BUFFER_SIZE);
    for (auto _ : state) {
        uint32_t offset = 0;
        for (int i = 0; i < 10; ++i) {
            karst::att::klv_append("gpu0_cert_chain_slot0", value.data(), 6000, buffer.data(),
                                   karst::att::SPDM_KLV_BUFFER_SIZE, &offset);
        }
        benchmark::DoNotOptimize(offset);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 60000));
}
BENCHMARK(BM_pack_evidence_buffer);

} // namespace
