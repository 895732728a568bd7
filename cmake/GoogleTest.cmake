# SPDX-License-Identifier: Apache-2.0
# GoogleTest: Debian's prebuilt GTest on the host; built from Debian's /usr/src/googletest
# (package googletest) for a cross-compiled target. Afterwards GTest::gtest_main exists.
if(CMAKE_CROSSCOMPILING)
    set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    # GoogleTest is built with its own flags, not the project's warnings-as-errors.
    get_directory_property(_karst_options COMPILE_OPTIONS)
    set_directory_properties(PROPERTIES COMPILE_OPTIONS "")
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/_deps/googletest
                     EXCLUDE_FROM_ALL SYSTEM)
    set_directory_properties(PROPERTIES COMPILE_OPTIONS "${_karst_options}")
    if(NOT TARGET GTest::gtest_main)
        add_library(GTest::gtest ALIAS gtest)
        add_library(GTest::gtest_main ALIAS gtest_main)
    endif()
else()
    find_package(GTest REQUIRED)
endif()
include(GoogleTest)
