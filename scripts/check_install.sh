#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a host build into a scratch prefix (not the one it was configured with) and builds
# programs against it the way their authors would, with nothing but the install's own files:
# a C program through pkg-config, the same linked statically through `pkg-config --static`, and
# a CMake project through find_package(karst) (the shared and the static target). Each runs
# against the installed emulator in a fresh run root. Then the installed tools and karstd's files.
#   scripts/check_install.sh BUILD_DIR
set -euo pipefail
build=$1
prefix=$(mktemp -d /tmp/karst-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name libkarst.so.1 -printf '%h\n' | head -n 1)
for file in include/karst.h share/man/man1/karstctl.1 share/man/man1/otp.1 \
    share/man/man1/karst-emu-setup.1 share/bash-completion/completions/karstctl; do
    test -f "$prefix/$file"
done
for file in pkgconfig/karst.pc libkarst.a karst-emulator/libteec.so.1 cmake/karst/karstConfig.cmake \
    cmake/karst/karstConfigVersion.cmake; do
    test -f "$libdir/$file"
done
readelf -d "$libdir/libkarst.so.1" | grep -q 'SONAME.*libkarst\.so\.1'
readelf -d "$libdir/libkarst.so.1" | grep -q 'NEEDED.*libteec\.so\.1'

fail() {
    echo "install check: $*" >&2
    exit 1
}
# Runs a program built against the install in a fresh run root; it prints "ok VERSION".
run_fresh() {
    local root output
    root=$(mktemp -d "$prefix/root-XXXXXX")
    "$prefix/bin/karst-emu-setup" "$root"
    output=$(KARST_ROOT=$root "$1") || fail "$1 failed: $output"
    [ "$output" = "ok $version" ] || fail "$1 printed: $output"
}
# Fails when the program needs libkarst.so: the static library is linked into it.
linked_statically() {
    if readelf -d "$1" | grep -q 'NEEDED.*libkarst'; then
        fail "$1 needs the shared library"
    fi
}

mkdir "$prefix/user"
cat >"$prefix/user/user.c" <<'C'
#include <karst.h>
#include <stdio.h>
#include <string.h>
int main(void) {
    char value[64];
    if (strcmp(karst_version(), KARST_VERSION) != 0) return 1;
    if (pta20_ubootenv_set("install_check", "ok") != 0) return 1;
    if (pta20_ubootenv_get("install_check", value, sizeof value) != 0) return 1;
    printf("%s %s\n", value, karst_version());
    return 0;
}
C
export PKG_CONFIG_PATH="$libdir/pkgconfig"
version=$(pkg-config --modversion karst)
cd "$prefix/user"
# shellcheck disable=SC2046
cc -Wall -Werror user.c -o user $(pkg-config --cflags --libs karst) \
    -Wl,-rpath,"$(pkg-config --variable=libdir karst)"
run_fresh ./user
# The archive in place of the shared library beside it; the rest from Libs.private.
# shellcheck disable=SC2046
cc -Wall -Werror user.c -o user-static $(pkg-config --cflags karst) \
    $(pkg-config --static --libs karst | sed 's/-lkarst /-l:libkarst.a /')
linked_statically user-static
run_fresh ./user-static

cat >CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(user C)
find_package(karst 1.0 REQUIRED)
add_executable(user-cmake user.c)
target_link_libraries(user-cmake PRIVATE karst::karst)
add_executable(user-cmake-static user.c)
target_link_libraries(user-cmake-static PRIVATE karst::karst_static)
CMAKE
cmake -S . -B build -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build build >/dev/null
linked_statically build/user-cmake-static
run_fresh build/user-cmake
run_fresh build/user-cmake-static
# A program asking for another major version does not get this one.
sed -i 's/karst 1.0 REQUIRED/karst 2.0 REQUIRED/' CMakeLists.txt
if cmake -S . -B build-2 -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >build-2.log 2>&1; then
    fail "find_package(karst 2.0) accepted karst $version"
fi

# The installed tools find the library and the emulator from where they are installed.
root=$(mktemp -d "$prefix/root-XXXXXX")
(cd "$root" && "$prefix/bin/karst-emu-setup" --help >help.txt)
grep -q '^usage: karst-emu-setup ' "$root/help.txt"
[ "$(ls -A "$root")" = help.txt ] || fail "karst-emu-setup --help made files"
"$prefix/bin/karst-emu-setup" "$root"
test -s "$root/dev/mmcblk0"
KARST_ROOT=$root "$prefix/bin/karstctl" --version | grep -q '^karstctl '
KARST_ROOT=$root "$prefix/bin/otp" getsn | grep -Eqx 'KB[0-9]{10}'
# karstd with its bus policy and a unit that starts the installed program.
if [ -e "$build/tools/karstd/karstd" ]; then
    "$prefix/sbin/karstd" --version | grep -q '^karstd '
    test -f "$prefix/share/dbus-1/system.d/xyz.openbmc_project.Software.Karst.conf"
    grep -qx "ExecStart=$prefix/sbin/karstd" "$prefix/lib/systemd/system/karstd.service" ||
        fail "karstd.service does not start $prefix/sbin/karstd"
fi
echo "install check passed: karst $version in $prefix: pkg-config (shared and static), the CMake" \
    "package (shared and static), the tools, the emulator and its set-up program, karstd"
