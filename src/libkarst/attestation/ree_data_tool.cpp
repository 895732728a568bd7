#include "ree_data_tool.hpp"

#include "attestation/board_paths.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

namespace karst::att {

namespace {

std::string tool_word() {
    return shell::quote(platform_path(REE_DATA_TOOL));
}

} // namespace

void ree_data_tool_make(const char *nonce) {
    shell::run(tool_word() + " 1 " + shell::quote(nonce));
}

void ree_data_tool_clean() {
    shell::run(tool_word() + " 2");
}

} // namespace karst::att
