#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The test suite over Debian's own TEE client library: the 32-bit ARM board build
# (KARST_TEE=system against the armhf libteec1 and optee-client-dev) with the TEE driver stand-in,
# run under qemu-arm twice from one build, with the driver's registered memory and without it
# (KARST_EMU_REGISTERED_MEMORY=0), so that both of the client library's memory paths run.
#   scripts/test_real_libteec.sh [BUILD_DIR]   (default build/armhf-system)
# docs/emulator.md, "Checked against the real client library", says what runs and what not.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/armhf-system}
sysroot=$(realpath -m "$build/sysroot")
jobs=$(nproc)

scripts/deps.sh g++-arm-linux-gnueabihf qemu-user googletest
scripts/armhf_sysroot.sh "$sysroot" zlib1g zlib1g-dev libssl3 libssl-dev libteec1 \
    optee-client-dev
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKARST_TEE=system \
    -DKARST_TEE_DRIVER_STANDIN=ON -DKARST_ARMHF_SYSROOT="$sysroot" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/arm-linux-gnueabihf.cmake" >/dev/null
cmake --build "$build" -j "$jobs"

for registered in 1 0; do
    echo "==== armhf over libteec1, registered memory $registered"
    start=$SECONDS
    KARST_EMU_REGISTERED_MEMORY=$registered \
        ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
    echo "registered memory $registered: $((SECONDS - start)) s"
done
