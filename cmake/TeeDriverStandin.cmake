# SPDX-License-Identifier: Apache-2.0
# How the programs of a system build with the TEE driver stand-in run: with the stand-in
# preloaded (emulator/src/driver), so that the system's libteec finds /dev/tee0 in it.
#
# Under qemu-arm the stand-in is named in etc/ld.so.preload of a root of the build's own, where
# qemu looks first for every absolute path a target program opens (-L); its lib/ is the cross
# toolchain's, which the toolchain file named there before. Not LD_PRELOAD: a target program's
# environment goes to every host program it starts (the shell, dd, openssl), whose loader would
# complain on standard error about a 32-bit library it cannot preload.
#
# Run natively (not cross compiled), the test programs link the stand-in ahead of the C library,
# and the programs they start (karstctl, otp) need LD_PRELOAD naming it.
set(KARST_TEE_DRIVER_STANDIN_FILE ${PROJECT_BINARY_DIR}/emulator/lib/libkarst_tee_driver.so)
list(FIND CMAKE_CROSSCOMPILING_EMULATOR -L prefix_flag)
if(prefix_flag GREATER_EQUAL 0)
    math(EXPR prefix_at "${prefix_flag} + 1")
    list(GET CMAKE_CROSSCOMPILING_EMULATOR ${prefix_at} toolchain_root)
    set(standin_root ${PROJECT_BINARY_DIR}/emulator/qemu-root)
    file(MAKE_DIRECTORY ${standin_root}/etc)
    file(CREATE_LINK ${toolchain_root}/lib ${standin_root}/lib SYMBOLIC)
    file(WRITE ${standin_root}/etc/ld.so.preload "${KARST_TEE_DRIVER_STANDIN_FILE}\n")
    list(REMOVE_AT CMAKE_CROSSCOMPILING_EMULATOR ${prefix_at})
    list(INSERT CMAKE_CROSSCOMPILING_EMULATOR ${prefix_at} ${standin_root})
    message(STATUS "karst: target programs run with the TEE driver stand-in (${standin_root})")
endif()
