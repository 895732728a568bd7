#!/usr/bin/env bash
# The whole test suite: a normal build, then an AddressSanitizer + UndefinedBehaviorSanitizer
# build with leaks counted as failures, then a short run of every fuzz target.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libbenchmark-dev clang libclang-rt-dev
jobs=$(nproc)

run_suite() {
    local name=$1
    shift
    echo "==== $name"
    cmake -S . -B "build/$name" -G Ninja -DKARST_TEE=emulator "$@" >/dev/null
    cmake --build "build/$name" -j "$jobs"
    ctest --test-dir "build/$name" -j "$jobs" --output-on-failure --timeout 300
}

run_suite host -DCMAKE_BUILD_TYPE=Debug

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite asan -DCMAKE_BUILD_TYPE=Debug -DKARST_SANITIZE=ON

echo "==== fuzz"
scripts/fuzz.sh 20

echo "All suites passed."
