// SPDX-License-Identifier: Apache-2.0
// Data block costs: crc32i against zlib's crc32 and a byte-at-a-time table loop, building a
// 65,536-byte block of 1,000 keys, and replacing a value in a full block (against one CRC pass
// over that block).
#include "datablk/header.hpp"
#include "karst.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

constexpr uint32_t BLOCK_SIZE = 65536;
constexpr int KEYS = 1000;
constexpr uint32_t VALUE_LEN = 50; // 1,000 pairs of 63 bytes: 63,000 of 65,520 data bytes

std::vector<uint8_t> random_bytes(size_t n) {
    std::vector<uint8_t> out(n);
    uint32_t x = 2463534242u;
    for (auto &b : out) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<uint8_t>(x);
    }
    return out;
}

// The CRC-32 as the board's original routine computes it: one table look-up per byte.
uint32_t crc32_table_loop(uint32_t crc, const uint8_t *buf, size_t len) {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            t[i] = c;
        }
        return t;
    }();
    for (size_t i = 0; i < len; ++i) {
        crc = table[(crc ^ buf[i]) & 0xFF] ^ (crc >> 8);
    }
    return ~crc;
}

void BM_crc32i(benchmark::State &state) {
    const auto data = random_bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            crc32i(0xFFFFFFFF, data.data(), static_cast<uint32_t>(data.size())));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_zlib_crc32(benchmark::State &state) {
    const auto data = random_bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc32(0, data.data(), static_cast<uInt>(data.size())));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_table_loop_crc32(benchmark::State &state) {
    const auto data = random_bytes(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(crc32_table_loop(0xFFFFFFFF, data.data(), data.size()));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(BM_crc32i)->Arg(64 << 10)->Arg(4 << 20);
BENCHMARK(BM_zlib_crc32)->Arg(64 << 10)->Arg(4 << 20);
BENCHMARK(BM_table_loop_crc32)->Arg(64 << 10)->Arg(4 << 20);

std::vector<std::array<char, 16>> key_names() {
    std::vector<std::array<char, 16>> keys(KEYS);
    for (int i = 0; i < KEYS; ++i) {
        std::snprintf(keys[i].data(), keys[i].size(), "key_%04d", i);
    }
    return keys;
}

void fill(std::vector<uint8_t> &blk, const std::vector<std::array<char, 16>> &keys,
          const std::vector<uint8_t> &value) {
    pta20_datablk_create(DATABLK_MAGIC_ATT, blk.data(), BLOCK_SIZE);
    for (const auto &key : keys) {
        if (pta20_datablk_set(DATABLK_MAGIC_ATT, key.data(), value.data(), VALUE_LEN, blk.data()) !=
            0) {
            std::abort();
        }
    }
}

void BM_build_block_1000_keys(benchmark::State &state) {
    const auto keys = key_names();
    const auto value = random_bytes(VALUE_LEN);
    std::vector<uint8_t> blk(BLOCK_SIZE);
    for (auto _ : state) {
        fill(blk, keys, value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_build_block_1000_keys)->Unit(benchmark::kMillisecond);

// One CRC pass over a 65,536-byte block: the unit a set is measured in.
void BM_block_crc_pass(benchmark::State &state) {
    std::vector<uint8_t> blk(BLOCK_SIZE);
    pta20_datablk_create(DATABLK_MAGIC_ATT, blk.data(), BLOCK_SIZE);
    for (auto _ : state) {
        benchmark::DoNotOptimize(karst::datablk::datablk_crc(blk.data()));
    }
}
BENCHMARK(BM_block_crc_pass)->Unit(benchmark::kMicrosecond);

// Replacing the value of a key in the middle of a block holding 1,000 keys, alternating
// between two values of the same length so that every set writes.
void BM_replace_value_full_block(benchmark::State &state) {
    const auto keys = key_names();
    const auto a = random_bytes(VALUE_LEN);
    auto b = a;
    b[0] ^= 1;
    std::vector<uint8_t> blk(BLOCK_SIZE);
    fill(blk, keys, a);
    bool flip = false;
    for (auto _ : state) {
        flip = !flip;
        if (pta20_datablk_set(DATABLK_MAGIC_ATT, keys[KEYS / 2].data(), flip ? b.data() : a.data(),
                              VALUE_LEN, blk.data()) != 0) {
            state.SkipWithError("set failed");
            break;
        }
    }
}
BENCHMARK(BM_replace_value_full_block)->Unit(benchmark::kMicrosecond);

} // namespace
