#!/usr/bin/env bash
# Builds the benchmarks with optimisation (Release, build/bench) and runs them.
#   scripts/bench.sh [BENCHMARK ARGUMENTS...]   e.g. --benchmark_filter=crc
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libbenchmark-dev
cmake -S . -B build/bench -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF -DKARST_BENCH=ON >/dev/null
cmake --build build/bench --target karst_bench images_bench
for program in karst_bench images_bench; do
    echo "==== $program"
    build/bench/bench/$program "$@"
done
