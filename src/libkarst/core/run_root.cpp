// SPDX-License-Identifier: Apache-2.0
#include "run_root.hpp"

#include <cstdlib>

namespace karst {

std::string run_root() {
#if defined(KARST_HOST_BUILD)
    // Read on every use: a test or a tool may point the process at another root between calls.
    const char *root = std::getenv("KARST_ROOT");
    if (root != nullptr) {
        std::string prefix(root);
        while (!prefix.empty() && prefix.back() == '/') {
            prefix.pop_back();
        }
        return prefix;
    }
#endif
    return {};
}

std::string platform_path(std::string_view board_path) {
    std::string path = run_root();
    path.append(board_path);
    return path;
}

} // namespace karst
