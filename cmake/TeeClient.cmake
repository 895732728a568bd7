# SPDX-License-Identifier: Apache-2.0
# Chooses the TEE client library and defines the interface target karst_teec
# that the library links against.
#
# Board build (system): the board's tee_client_api.h and libteec; platform paths are the real
# ones and KARST_ROOT is not read.
# Host build (emulator): the project's own tee_client_api.h and the emulator, which is built as
# a drop-in libteec.so.1; platform paths are prefixed with $KARST_ROOT when it is set.

find_path(KARST_SYSTEM_TEEC_INCLUDE_DIR tee_client_api.h)
find_library(KARST_SYSTEM_TEEC_LIBRARY teec)

if(KARST_TEE STREQUAL "auto")
    if(KARST_SYSTEM_TEEC_INCLUDE_DIR AND KARST_SYSTEM_TEEC_LIBRARY)
        set(KARST_TEE_RESOLVED system)
    else()
        set(KARST_TEE_RESOLVED emulator)
    endif()
else()
    set(KARST_TEE_RESOLVED ${KARST_TEE})
endif()

add_library(karst_teec INTERFACE)

if(KARST_TEE_RESOLVED STREQUAL "system")
    if(NOT KARST_SYSTEM_TEEC_INCLUDE_DIR OR NOT KARST_SYSTEM_TEEC_LIBRARY)
        message(FATAL_ERROR "KARST_TEE=system but tee_client_api.h or libteec was not found")
    endif()
    set(KARST_WITH_EMULATOR OFF)
    set(KARST_TEEC_INCLUDE_DIR ${KARST_SYSTEM_TEEC_INCLUDE_DIR})
    target_include_directories(karst_teec INTERFACE ${KARST_SYSTEM_TEEC_INCLUDE_DIR})
    target_link_libraries(karst_teec INTERFACE ${KARST_SYSTEM_TEEC_LIBRARY})
    # What a program linking the installed static library links: the system's, by name.
    set(KARST_TEEC_INSTALLED teec)
    message(STATUS "karst: board build against ${KARST_SYSTEM_TEEC_LIBRARY}")
    if(KARST_TEE_DRIVER_STANDIN)
        # The test suite over the board's client library: paths under KARST_ROOT, as on the
        # emulator, and the stand-in for the kernel's driver answering /dev/tee0.
        target_compile_definitions(karst_teec INTERFACE KARST_HOST_BUILD=1)
        include(${CMAKE_CURRENT_LIST_DIR}/TeeDriverStandin.cmake)
    endif()
elseif(KARST_TEE_RESOLVED STREQUAL "emulator")
    set(KARST_WITH_EMULATOR ON)
    set(KARST_TEEC_INCLUDE_DIR ${PROJECT_SOURCE_DIR}/emulator/include)
    target_include_directories(karst_teec INTERFACE
        $<BUILD_INTERFACE:${KARST_TEEC_INCLUDE_DIR}>)
    target_compile_definitions(karst_teec INTERFACE KARST_HOST_BUILD=1)
    # The emulator target (teec) is linked in emulator/CMakeLists.txt; installed, it is the
    # exported target karst::emulator.
    set(KARST_TEEC_INSTALLED karst_emulator)
    message(STATUS "karst: host build against the secure-world emulator")
else()
    message(FATAL_ERROR "KARST_TEE must be auto, system or emulator (got ${KARST_TEE})")
endif()
# A build the test suite runs on: KARST_ROOT read and the failure hooks compiled in. The board's
# own build (system without the driver stand-in) has neither.
if(KARST_WITH_EMULATOR OR KARST_TEE_DRIVER_STANDIN)
    set(KARST_TEST_BUILD ON)
else()
    set(KARST_TEST_BUILD OFF)
endif()

# Whether TEEC_Context begins with the TEE device descriptor. Where it does, the library keeps
# the descriptor at -1 while the context is closed; where it does not, it relies on its own
# open flag alone.
include(CheckCSourceCompiles)
set(CMAKE_REQUIRED_INCLUDES ${KARST_TEEC_INCLUDE_DIR})
check_c_source_compiles("
#include <stddef.h>
#include <tee_client_api.h>
_Static_assert(offsetof(TEEC_Context, fd) == 0, \"fd first\");
int main(void) { return 0; }" KARST_TEEC_CONTEXT_FD_FIRST)
unset(CMAKE_REQUIRED_INCLUDES)
if(KARST_TEEC_CONTEXT_FD_FIRST)
    target_compile_definitions(karst_teec INTERFACE KARST_TEEC_CONTEXT_FD_FIRST=1)
endif()
