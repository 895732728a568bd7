#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The whole test suite: a normal build with clang-tidy over its sources, its install (pkg-config
# and CMake consumers), its exported interface against abi/ and the README's examples; an
# AddressSanitizer + UndefinedBehaviorSanitizer build with leaks counted as failures; the
# threaded tests under ThreadSanitizer; each fuzz target for 20 seconds; and the 32-bit ARM
# build, run under qemu-arm, on the emulator and then over Debian's own libteec with the TEE
# driver stand-in (registered memory on and off).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev zlib1g-dev openssl libcli11-dev libbenchmark-dev clang libclang-rt-dev \
    g++-arm-linux-gnueabihf qemu-user googletest abigail-tools libsystemd-dev dbus-daemon
jobs=$(nproc)

# run_suite NAME [CMAKE_ARGS...] [-- CTEST_ARGS...]
run_suite() {
    local name=$1
    shift
    local configure=() select=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do
        configure+=("$1")
        shift
    done
    [ $# -gt 0 ] && shift && select=("$@")
    echo "==== $name"
    cmake -S . -B "build/$name" -G Ninja -DKARST_TEE=emulator "${configure[@]}" >/dev/null
    cmake --build "build/$name" -j "$jobs"
    ctest --test-dir "build/$name" -j "$jobs" --output-on-failure --timeout 300 "${select[@]}"
}

echo "==== licence: an SPDX line in every source file"
unlicensed=$(git ls-files -- '*.c' '*.cpp' '*.h' '*.hpp' '*.sh' '*CMakeLists.txt' '*.cmake' |
    xargs grep -L 'SPDX-License-Identifier: Apache-2.0' || true)
if [ -n "$unlicensed" ]; then
    echo "without an SPDX line: $unlicensed" >&2
    exit 1
fi

run_suite host -DCMAKE_BUILD_TYPE=Debug
echo "==== install, ABI, README examples"
scripts/check_install.sh build/host
scripts/check_abi.sh build/host
scripts/readme_examples.sh
echo "==== tidy"
scripts/tidy.sh build/host

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite asan -DCMAKE_BUILD_TYPE=Debug -DKARST_SANITIZE=ON

unset ASAN_OPTIONS UBSAN_OPTIONS
# The tests that run threads (label "threads"), under ThreadSanitizer.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
run_suite tsan -DCMAKE_BUILD_TYPE=Debug -DKARST_TSAN=ON -- -L threads
unset TSAN_OPTIONS

# Each libFuzzer target, briefly (longer runs: scripts/fuzz.sh SECONDS).
echo "==== fuzz"
scripts/fuzz.sh 20

run_suite armhf -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/arm-linux-gnueabihf.cmake"
echo "==== armhf-system"
scripts/test_real_libteec.sh build/armhf-system

echo "All suites passed."
