# SPDX-License-Identifier: Apache-2.0
# What an installed karst offers the programs built against it, both under <libdir>: karst.pc
# for pkg-config, and the CMake package karst (cmake/karstConfig.cmake.in). Included after the
# library's and the emulator's targets exist.
include(CMakePackageConfigHelpers)

# karst.pc names the prefix it is installed under. `cmake --install --prefix DIR` chooses that
# prefix after the build was configured, so the file is written by the install itself: the
# template is filled now with everything but the prefix, which the install fills in.
set(KARST_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
        set(KARST_PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
        set(KARST_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
endforeach()
# A static link needs the TEE client library: the installed emulator's (with a run path, as it
# is not on the system's library path) or the system's.
if(KARST_WITH_EMULATOR)
    set(KARST_PC_TEEC_VARIABLE "emulatordir=\${libdir}/karst-emulator\n")
    set(KARST_PC_TEEC_LIBS "-L\${emulatordir} -Wl,-rpath,\${emulatordir} -lteec")
else()
    set(KARST_PC_TEEC_VARIABLE "")
    set(KARST_PC_TEEC_LIBS "-lteec")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/karst.pc.in ${PROJECT_BINARY_DIR}/karst.pc.in @ONLY)
install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/karst.pc.in\"
                             \"${PROJECT_BINARY_DIR}/pkgconfig/karst.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/karst.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The CMake package: the exported targets, the configuration file and its version file (a
# program asking for 1.x accepts any 1.y), found relative to their own place.
set(KARST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/karst)
install(EXPORT karstTargets NAMESPACE karst:: DESTINATION ${KARST_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/karstConfig.cmake.in
    ${PROJECT_BINARY_DIR}/karstConfig.cmake INSTALL_DESTINATION ${KARST_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/karstConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/karstConfig.cmake
              ${PROJECT_BINARY_DIR}/karstConfigVersion.cmake
        DESTINATION ${KARST_CMAKE_DIR})
