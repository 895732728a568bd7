#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev openssl
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karst_demo >/dev/null

demo=build/demo/tools/karst_demo
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

echo
echo "Demo finished."
