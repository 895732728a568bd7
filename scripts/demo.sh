#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karst_demo karst-emu-setup >/dev/null

demo=build/demo/tools/karst_demo
export KARST_ROOT
KARST_ROOT=$(mktemp -d /tmp/karst-demo-XXXXXX)
trap 'rm -rf "$KARST_ROOT"' EXIT
build/demo/emulator/karst-emu-setup "$KARST_ROOT"

step() { printf '\n== %s\n' "$*"; }

echo "karst demo: run root $KARST_ROOT (the board's /nv1, /tmp, ... live under it)"

step "U-Boot environment: one process sets a variable in the secure world"
value="bootm 0x20080000 - 0x83000000 # set $(date -u +%FT%TZ)"
echo "\$ karst_demo env-set bootcmd '$value'"
"$demo" env-set bootcmd "$value"

step "A second process reads it back"
echo "\$ karst_demo env-get bootcmd"
"$demo" env-get bootcmd

step "Firmware: a 64 MiB BIOS image arrives in its staging slot and is uploaded"
staging="$KARST_ROOT/nv1/bios_staging.bin"
{
    printf '\123\000\000\001karst demo BIOS image'  # a signature table version word first
    head -c $((64 * 1024 * 1024 - 25)) /dev/zero | tr '\0' '\377'
} > "$staging"
echo "\$ karst_demo img-upload"
"$demo" img-upload

step "Update the BIOS on a background thread: backup and evidence dumps first, then the update"
echo "\$ karst_demo img-update"
"$demo" img-update
ls -l "$KARST_ROOT/nv1/bios_backup.bin" "$KARST_ROOT/nv1/bios_evidence.bin" | sed 's/^/  /'

step "Dump the active BMC image from the eMMC"
echo "\$ karst_demo img-dump-bmc"
"$demo" img-dump-bmc 2>/dev/null
ls -l "$KARST_ROOT/tmp/fw_image" | sed 's/^/  /'
printf '  first bytes: '
head -c 31 "$KARST_ROOT/tmp/fw_image" | tr -c '[:print:]' '.'
echo

echo
echo "Demo finished."
