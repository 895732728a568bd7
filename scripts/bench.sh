#!/usr/bin/env bash
# The benchmarks: a release build with -DKARST_BENCH=ON, each benchmark program run in turn.
#   scripts/bench.sh [BENCHMARK ARGS...]   e.g. --benchmark_filter=Upload
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libbenchmark-dev
cmake -S . -B build/bench -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BENCH=ON -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/bench
for program in build/bench/bench/*_bench; do
    echo "==== $(basename "$program")"
    "$program" "$@"
done
