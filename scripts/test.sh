#!/usr/bin/env bash
# The whole test suite: a normal build, then an AddressSanitizer + UndefinedBehaviorSanitizer
# build with leaks counted as failures.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh clang libclang-rt-dev
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

# libFuzzer targets (clang, ASan + UBSan), each run briefly from its seed corpus.
echo "==== fuzz"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DKARST_TEE=emulator \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKARST_FUZZ=ON -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/fuzz -j "$jobs"
for target in build/fuzz/fuzz/*_fuzz; do
    name=$(basename "$target" _fuzz)
    mkdir -p "build/fuzz/corpus/$name"
    echo "-- $name: ${KARST_FUZZ_SECONDS:-20} s"
    status=0
    ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 \
        "$target" -max_total_time="${KARST_FUZZ_SECONDS:-20}" -artifact_prefix="build/fuzz/" \
        "build/fuzz/corpus/$name" "fuzz/corpus/$name" >"build/fuzz/$name.log" 2>&1 || status=$?
    if [ "$status" -ne 0 ]; then
        tail -n 40 "build/fuzz/$name.log"
        exit 1
    fi
    grep -E "DONE" "build/fuzz/$name.log" || true
done

echo "All suites passed."
