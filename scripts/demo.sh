#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev zlib1g-dev openssl
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karst_demo otp >/dev/null

demo=build/demo/tools/karst_demo
otp=build/demo/tools/otp
export KARST_ROOT
KARST_ROOT=$(mktemp -d /tmp/karst-demo-XXXXXX)
trap 'rm -rf "$KARST_ROOT"' EXIT

step() { printf '\n== %s\n' "$*"; }

echo "karst demo: run root $KARST_ROOT (the board's /nv1, /tmp, ... live under it)"

step "U-Boot environment: one process sets a variable in the secure world"
value="bootm 0x20080000 - 0x83000000 # set $(date -u +%FT%TZ)"
echo "\$ karst_demo env-set bootcmd '$value'"
"$demo" env-set bootcmd "$value"

step "A second process reads it back"
echo "\$ karst_demo env-get bootcmd"
"$demo" env-get bootcmd

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
