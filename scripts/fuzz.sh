#!/usr/bin/env bash
# The libFuzzer targets: a clang build with -DKARST_FUZZ=ON, each target run for a while on a
# copy of its seed corpus.
#   scripts/fuzz.sh [SECONDS]   seconds per target (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
scripts/deps.sh clang libclang-rt-dev zlib1g-dev
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DKARST_TEE=emulator \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKARST_FUZZ=ON -DKARST_BUILD_TESTS=OFF >/dev/null
# Only the targets: the shared libraries are not linked with clang's sanitizer runtimes.
targets=()
for source in fuzz/*_fuzz.cpp; do
    targets+=("$(basename "$source" .cpp)")
done
cmake --build build/fuzz --target "${targets[@]}"

work=$(mktemp -d /tmp/karst-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT
for t in "${targets[@]}"; do
    target=build/fuzz/fuzz/$t
    name=${t%_fuzz}
    corpus="$work/$name"
    mkdir -p "$corpus"
    [ -d "fuzz/corpus/$name" ] && cp fuzz/corpus/"$name"/* "$corpus"/
    echo "==== fuzz $name (${seconds}s)"
    "$target" -max_total_time="$seconds" -print_final_stats=0 "$corpus" 2>"$work/$name.log" || {
        cat "$work/$name.log"
        exit 1
    }
    tail -n 1 "$work/$name.log"
done
