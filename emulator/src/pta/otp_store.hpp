// SPDX-License-Identifier: Apache-2.0
// The board's one-time-programmable memory and serial number as the application keeps them in
// the state directory (file "otp"):
//   - 32 OTP keys, numbers 0x00 to 0x1F, 32 bytes each, made at random when the state is new
//     (the board's manufacture) and never changed;
//   - a user area of 1,024 bytes that reads 0x00 until programmed; each byte can be programmed
//     once, and a request that touches a programmed byte changes nothing;
//   - the board serial number, "KB" and ten digits, made when the state is new.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace karst::emu::otp {

constexpr uint32_t KEY_COUNT = 32;
constexpr size_t KEY_SIZE = 32;
constexpr size_t USER_AREA_SIZE = 1024;

// The key of that number; nothing for a number without a key or unusable storage.
std::optional<std::vector<uint8_t>> key(uint32_t number);

enum class Programming { done, outside_area, already_programmed, storage_failed };
// Programs data at offset of the user area, all bytes or none.
Programming program_user_area(uint32_t offset, std::span<const uint8_t> data);
// Reads the user area; false when the range lies outside it.
bool read_user_area(uint32_t offset, std::span<uint8_t> out);

// The board serial number; empty when the storage is unusable.
std::string board_serial();

} // namespace karst::emu::otp
