#!/usr/bin/env bash
# The demo: the library against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev zlib1g-dev openssl
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

echo
echo "Demo finished."
