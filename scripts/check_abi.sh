#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The library's ABI against its baseline, abi/libkarst.so.1.abi (abidw's description of the
# exported functions and data of libkarst.so.1, their versions, and every type they reach):
#   scripts/check_abi.sh BUILD_DIR            fails on any difference, and prints it
#   scripts/check_abi.sh --update BUILD_DIR   writes the baseline from BUILD_DIR's library
# BUILD_DIR is a host build with debug info (Debug or RelWithDebInfo) on x86-64, as
# scripts/test.sh makes build/host. A change to the C interface (a name added or removed, a
# signature, a structure, a constant baked into a type) fails the check until the baseline is
# written again on purpose, in the commit that makes the change; see docs/packaging.md for when
# such a change also needs a new soname.
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
if [ "${1:-}" = "--update" ]; then
    update=1
    shift
fi
[ $# -eq 1 ] || { echo "usage: scripts/check_abi.sh [--update] BUILD_DIR" >&2; exit 2; }
scripts/deps.sh abigail-tools

baseline=abi/libkarst.so.1.abi
lib=$1/src/libkarst/libkarst.so.1
[ -f "$lib" ] || { echo "check_abi: no $lib (build the library first)" >&2; exit 2; }
if ! readelf -S "$lib" | grep -q '\.debug_info'; then
    echo "check_abi: $lib has no debug info (configure with -DCMAKE_BUILD_TYPE=Debug)" >&2
    exit 2
fi

# The exported interface only, without source locations or build paths: the description
# depends on the interface alone, not on the internal code or where the clone lies.
current=$(mktemp)
trap 'rm -f "$current"' EXIT
abidw --exported-interfaces-only --no-show-locs --no-corpus-path --no-comp-dir-path "$lib" |
    sed "s|path='$PWD/|path='|" >"$current"

if [ "$update" -eq 1 ]; then
    install -m 644 "$current" "$baseline"
    echo "check_abi: $baseline written from $lib"
    exit 0
fi
if ! report=$(abidiff --harmless --no-show-locs "$baseline" "$current"); then
    echo "$report"
    echo "check_abi: libkarst.so.1 differs from $baseline. If the change is meant, write the" \
        "baseline again (scripts/check_abi.sh --update $1) in the same commit;" \
        "docs/packaging.md says when the soname must change too." >&2
    exit 1
fi
echo "check_abi: libkarst.so.1 matches $baseline ($(grep -c '<elf-symbol ' "$baseline") symbols)"
