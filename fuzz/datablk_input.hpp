// The shape of a datablk_fuzz input, shared by the target and its seed generator.
//
//   byte 0       mode: FOREIGN (a block as other software might hand it over) or BUILD
//   FOREIGN:     flags, key length, key, value length (2 bytes), value, get capacity (2 bytes),
//                then the block itself, taking the rest of the input
//   BUILD:       block size (2 bytes), then operations until the input ends:
//                key index, value length, value bytes
#pragma once

#include <cstdint>

namespace fuzz_input {

constexpr uint8_t FOREIGN = 0;
constexpr uint8_t BUILD = 1;

constexpr uint8_t FIX_DATA_LEN = 1; // make max_data_len fit the bytes given
constexpr uint8_t FIX_CRC = 2;      // store a correct CRC before the operations

constexpr uint32_t BUILD_MAX_SIZE = 4096; // block sizes 17 .. 17 + BUILD_MAX_SIZE - 1
constexpr uint32_t BUILD_KEYS = 8;        // keys "k0" .. "k7" and longer ones (see key_name)

} // namespace fuzz_input
