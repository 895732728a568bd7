# SPDX-License-Identifier: Apache-2.0
# The project's version, read from include/karst.h before project(): KARST_VERSION_MAJOR,
# _MINOR and _PATCH give KARST_HEADER_VERSION, and the KARST_VERSION string must spell the same
# three numbers. karst.h is then the one place a version is written.
set(KARST_HEADER ${CMAKE_CURRENT_LIST_DIR}/../include/karst.h)
file(STRINGS ${KARST_HEADER} _karst_version_lines
     REGEX "^#define KARST_VERSION(_MAJOR|_MINOR|_PATCH)? ")
foreach(_line IN LISTS _karst_version_lines)
    if(_line MATCHES "^#define (KARST_VERSION[A-Z_]*) +\"?([0-9.]+)\"?$")
        set(_${CMAKE_MATCH_1} ${CMAKE_MATCH_2})
    endif()
endforeach()
set(KARST_HEADER_VERSION
    "${_KARST_VERSION_MAJOR}.${_KARST_VERSION_MINOR}.${_KARST_VERSION_PATCH}")
if(NOT KARST_HEADER_VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$"
   OR NOT "${_KARST_VERSION}" STREQUAL KARST_HEADER_VERSION)
    message(FATAL_ERROR "karst.h: KARST_VERSION \"${_KARST_VERSION}\" does not match "
                        "KARST_VERSION_MAJOR/MINOR/PATCH (${KARST_HEADER_VERSION})")
endif()
# A change to karst.h configures again, so that the version (and the exported names, see
# cmake/ExportMap.cmake) follow it.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KARST_HEADER})
