#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every libFuzzer target in fuzz/ for a while, each from its seed corpus, in a clang build
# with AddressSanitizer and UndefinedBehaviorSanitizer (build/fuzz).
#   scripts/fuzz.sh [SECONDS]   seconds per target (default 300)
# New inputs accumulate in build/fuzz/corpus/<target>; a crash leaves its input in
# build/fuzz/artifacts/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
scripts/deps.sh clang libclang-rt-dev

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DKARST_TEE=emulator -DKARST_FUZZ=ON \
    -DKARST_BUILD_TESTS=OFF -DKARST_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target fuzz_targets

# The sanitizer runtime is a shared library (so that the emulator links against it too), hence
# the link order check is off.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}:verify_asan_link_order=0
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/artifacts"
for source in fuzz/*_fuzz.cpp; do
    target=$(basename "$source" .cpp)
    name=${target%_fuzz}
    corpus="$build/corpus/$name"
    mkdir -p "$corpus"
    seeds=()
    if [ -d "fuzz/corpus/$name" ]; then
        seeds=("fuzz/corpus/$name")
    fi
    log="$build/$target.log"
    echo "== $target: ${seconds}s"
    # Standard output is closed for the target: the library's messages would drown the log.
    if ! "$build/fuzz/$target" -max_total_time="$seconds" -close_fd_mask=1 \
        -artifact_prefix="$build/artifacts/" -print_final_stats=1 "$corpus" "${seeds[@]}" \
        >"$log" 2>&1; then
        tail -n 60 "$log"
        echo "$target failed; its input is in $build/artifacts/" >&2
        exit 1
    fi
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
done
