// SPDX-License-Identifier: Apache-2.0
// The digest-info text that the secure world returns with a dump result. It becomes part of the
// result file's name, so it is taken only when it is a terminated text of characters that
// belong in a file name and mean nothing to a shell: letters, digits and ". - _ + = : , @",
// without "..". Nothing the secure world answers can then name a file outside the result
// directory.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace karst::att {

// The text up to the first zero byte of the digest-info buffer; empty optional when the buffer
// holds no zero byte or the text holds a character outside the set above or "..".
std::optional<std::string> digest_info_text(std::span<const std::uint8_t> buffer);

} // namespace karst::att
