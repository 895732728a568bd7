// SPDX-License-Identifier: Apache-2.0
// Image files for the image tests: made in the test's run root, with a recognisable pattern.
#pragma once

#include <cstdint>
#include <string>

namespace karst::test {

// size bytes: an authentic image (a signature table version word first) followed by a pattern
// that depends on seed and position.
std::string image_bytes(size_t size, uint8_t seed = 1);
// The same, but failing the emulator's authentication rule.
std::string unsigned_image_bytes(size_t size, uint8_t seed = 1);

// Creates a file of size bytes (sparse) with bytes written at its start.
void make_sized_file(const std::string &path, uint64_t size, const std::string &start = "");

// How many mappings of the file at path this process holds now.
int mappings_of(const std::string &path);

} // namespace karst::test
