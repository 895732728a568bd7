#!/usr/bin/env bash
# Installs a host build into a scratch prefix and builds a C program against it the way a user
# of the library would: through pkg-config, with the installed header, library and emulator.
#   scripts/check_install.sh BUILD_DIR
set -euo pipefail
build=$1
prefix=$(mktemp -d /tmp/karst-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name libkarst.so.1 -printf '%h\n' | head -n 1)
test -f "$prefix/include/karst.h"
test -f "$libdir/pkgconfig/karst.pc"
test -f "$libdir/libkarst.a"
test -f "$libdir/karst-emulator/libteec.so.1"
readelf -d "$libdir/libkarst.so.1" | grep -q 'SONAME.*libkarst\.so\.1'
readelf -d "$libdir/libkarst.so.1" | grep -q 'NEEDED.*libteec\.so\.1'
test -f "$prefix/share/man/man1/karstctl.1"
KARST_ROOT="$prefix/root" "$prefix/bin/karstctl" --version | grep -q '^karstctl '

cat > "$prefix/user.c" <<'C'
#include <karst.h>
#include <stdio.h>
int main(void) {
    char value[64];
    if (pta20_ubootenv_set("install_check", "ok") != 0) return 1;
    if (pta20_ubootenv_get("install_check", value, sizeof value) != 0) return 1;
    printf("%s\n", value);
    return 0;
}
C
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror "$prefix/user.c" -o "$prefix/user" $(pkg-config --define-prefix --cflags --libs karst) \
   -Wl,-rpath,"$libdir"
KARST_ROOT="$prefix/root" "$prefix/user" | grep -qx ok
"$prefix/bin/karst-emu-setup" "$prefix/root"
test -s "$prefix/root/dev/mmcblk0"
# The otp program is installed with the library and finds it from where it is installed.
test -x "$prefix/bin/otp"
KARST_ROOT="$prefix/root" "$prefix/bin/otp" getsn | grep -Eqx 'KB[0-9]{10}'
echo "install check passed: header, pkg-config file, libkarst.so.1, the otp program, karstctl, the emulator and its set-up program work installed"
