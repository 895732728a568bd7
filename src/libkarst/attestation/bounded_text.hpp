// SPDX-License-Identifier: Apache-2.0
// Texts formed into fixed-size fields: a text longer than its field is cut to the field's size
// less one, as a bounded snprintf would cut it. The rule applies to the board form of a path;
// the run root's prefix comes on top.
#pragma once

#include <cstddef>
#include <string>

namespace karst::att {

inline std::string bounded(std::string text, std::size_t field_size) {
    if (field_size > 0 && text.size() > field_size - 1) {
        text.resize(field_size - 1);
    }
    return text;
}

} // namespace karst::att
