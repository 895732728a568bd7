#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

<<<<<<< HEAD
scripts/deps.sh libssl-dev openssl libcli11-dev
=======
scripts/deps.sh libssl-dev zlib1g-dev openssl
>>>>>>> main
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karst_demo otp karst-emu-setup >/dev/null

demo=build/demo/tools/karst_demo
otp=build/demo/tools/otp
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
step "Attestation dump: the secure world signs the evidence gathered for a nonce"
# The board's REE data tool, as the emulator's stand-in (it archives a few facts with the nonce).
install -D -m 0755 emulator/tools/reedata_tool.sh "$KARST_ROOT/usr/bin/reedata_tool.sh"
mkdir -p "$KARST_ROOT/tmp"
nonce=demo-$(date -u +%H%M%S)
echo "\$ karst_demo att-dump $nonce"
"$demo" att-dump "$nonce" | tee "$KARST_ROOT/tmp/att-dump.out"
result=$(tail -n 1 "$KARST_ROOT/tmp/att-dump.out")
ls -l "$result"
echo "The statement the device key signed (bytes 65,536 to 65,791 of the result):"
dd if="$result" bs=1 skip=65536 count=256 status=none | tr -d '\000'

step "The device's certificate chain, fetched certificate by certificate, read by openssl"
for index in 4 2 1 0; do
    "$demo" cert-get "$index" "$KARST_ROOT/tmp/cert$index.der"
    echo "index $index:"
    openssl x509 -inform DER -in "$KARST_ROOT/tmp/cert$index.der" -noout -subject -issuer \
        | sed 's/^/    /'
done
step "CSR: the secure world makes a certificate signing request for its own key"
mkdir -p "$KARST_ROOT/tmp"
csr=$KARST_ROOT/tmp/bmc.csr
echo "\$ karst_demo csr 'CN=bmc-demo,O=karst,C=US' $csr"
"$demo" csr 'CN=bmc-demo,O=karst,C=US' "$csr"
echo "\$ openssl req -inform DER -in $csr -noout -text -verify"
openssl req -inform DER -in "$csr" -noout -text -verify

step "Sign a file in the secure world; verify it there and with openssl"
data=$KARST_ROOT/tmp/measurements.txt
echo "boot measurements $(date -u +%FT%TZ)" > "$data"
echo "\$ karst_demo sign $data"
"$demo" sign "$data"
echo "\$ karst_demo verify $data $data.sig"
"$demo" verify "$data" "$data.sig"
openssl req -inform DER -in "$csr" -pubkey -noout > "$KARST_ROOT/tmp/device.pem" 2>/dev/null
echo "\$ openssl dgst -sha256 -verify device.pem -signature $data.sig $data"
openssl dgst -sha256 -verify "$KARST_ROOT/tmp/device.pem" -signature "$data.sig" "$data"
echo "tampered" >> "$data"
echo "(the file is changed)"
echo "\$ karst_demo verify $data $data.sig"
"$demo" verify "$data" "$data.sig" || true

step "Board serial number, read with the otp program"
echo "\$ otp getsn"
"$otp" getsn

echo
echo "Demo finished."
