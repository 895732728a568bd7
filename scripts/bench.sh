#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The benchmarks: a Release build in build/bench, then every benchmark program in turn.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libbenchmark-dev
cmake -S . -B build/bench -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF -DKARST_BENCH=ON >/dev/null
cmake --build build/bench
for program in build/bench/bench/*_bench; do
    echo "==== $(basename "$program")"
    "$program" "$@"
done
