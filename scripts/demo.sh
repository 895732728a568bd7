#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev openssl
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karst_demo karst-emu-setup >/dev/null

demo=build/demo/tools/karst_demo
export KARST_ROOT
KARST_ROOT=$(mktemp -d /tmp/karst-demo-XXXXXX)
trap 'rm -rf "$KARST_ROOT"' EXIT
build/demo/emulator/karst-emu-setup "$KARST_ROOT"
mkdir -p "$KARST_ROOT/tmp" "$KARST_ROOT/nv1" # the board's working and persistent folders

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
inventory="$KARST_ROOT/tmp/inventory.txt"

step "Inventory: values go to the secure world and to the inventory file"
echo "\$ karst_demo inv-set BMC_VERSION 2.10.0   (the first write only creates the file)"
"$demo" inv-set BMC_VERSION 2.10.0
echo "\$ karst_demo inv-set BMC_VERSION 2.10.1"
"$demo" inv-set BMC_VERSION 2.10.1
echo "\$ karst_demo inv-get BMC_VERSION"
"$demo" inv-get BMC_VERSION
echo "--- inventory file:"
cat "$inventory"

step "A BIOS version written as 'Rev' is read back as 'Ver', and corrected everywhere"
echo "\$ karst_demo inv-set BIOS_VERSION 'Rev 1.2a'"
"$demo" inv-set BIOS_VERSION 'Rev 1.2a'
echo "\$ karst_demo inv-get BIOS_VERSION"
"$demo" inv-get BIOS_VERSION
echo "--- inventory file:"
cat "$inventory"

step "Firmware inventory import from a legacy file"
legacy="$KARST_ROOT/nv1/fw_inventory_legacy.txt"
printf '%s\n' 'BIOS_VERSION=Ver 1.2a' 'CPLD_VERSION=0x0C' 'BMC_VERSION=2.11.0' '=comment line' \
    >"$legacy"
echo "--- $legacy:"
cat "$legacy"
echo "(BIOS_VERSION is already held; CPLD_VERSION is not, so its read fails and it is written)"
echo "\$ karst_demo fw-import $legacy"
"$demo" fw-import "$legacy"
echo "\$ karst_demo inv-get CPLD_VERSION"
"$demo" inv-get CPLD_VERSION
echo "\$ karst_demo inv-get BMC_VERSION"
"$demo" inv-get BMC_VERSION

step "Secure registers"
echo "\$ karst_demo reg-get 1e6e2070 3"
"$demo" reg-get 1e6e2070 3

echo
echo "Demo finished."
