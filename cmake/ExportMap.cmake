# SPDX-License-Identifier: Apache-2.0
# The linker version script of libkarst.so: one version node, KARST_1.0, holding every name that
# include/karst.h declares with KARST_API (functions and data); every other name is local. It is
# made from karst.h when the build is configured (karst.h is a configure dependency), so a new
# declaration is exported without a second list to keep, and the ABI check (scripts/check_abi.sh)
# sees it.
#   karst_export_map(OUTPUT_FILE)
function(karst_export_map output)
    file(READ ${KARST_HEADER} header)
    # A semicolon would split the CMake list of declarations.
    string(REPLACE ";" "," header "${header}")
    string(REGEX MATCHALL "\nKARST_API [^\n]*" declarations "${header}")
    set(names "")
    foreach(declaration IN LISTS declarations)
        # The name is the first identifier followed by "(", "[" or the end of the declaration.
        if(NOT declaration MATCHES "^\nKARST_API [^(,[]*[ *]([A-Za-z_][A-Za-z0-9_]*) *[(,[]")
            message(FATAL_ERROR "karst.h: no exported name found in:${declaration}")
        endif()
        string(APPEND names "        ${CMAKE_MATCH_1};\n")
    endforeach()
    file(CONFIGURE OUTPUT ${output} CONTENT
"/* Made from include/karst.h by cmake/ExportMap.cmake. */
KARST_1.0 {
    global:
${names}    local:
        *;
};
" @ONLY)
endfunction()
