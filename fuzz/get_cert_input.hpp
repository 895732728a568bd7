// The shape of a get_cert_fuzz input, shared by the target and its seed generator.
//
//   byte 0      certificate index: the byte minus 1 (so -1 .. 254; 0 to 5 are the real ones)
//   bytes 1-2   the caller's buffer size, big-endian (0 is refused before the secure world)
//   the rest    what the secure world answers for command 34: a chain of DER certificates, or
//               anything else
#pragma once

#include <cstdint>

namespace get_cert_input {

constexpr std::size_t HEADER = 3;

} // namespace get_cert_input
