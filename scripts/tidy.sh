#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# clang-tidy (.clang-tidy at the top) over the sources of the library, the emulator and the
# tools, with the compile commands of a configured build:
#   scripts/tidy.sh [BUILD_DIR] [FILE...]   (default: build/host, every source)
# Prints what it finds and fails when it finds anything.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/host}
shift || true
[ -f "$build/compile_commands.json" ] || { echo "tidy: no $build/compile_commands.json" >&2; exit 2; }
if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files 'src/*.cpp' 'emulator/*.cpp' 'tools/*.cpp')
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
printf '%s\n' "${files[@]}" |
    xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet >"$log" 2>/dev/null || true
if grep -qE '(warning|error): ' "$log"; then
    cat "$log"
    echo "tidy: $(grep -cE '(warning|error): ' "$log") findings" >&2
    exit 1
fi
echo "tidy: ${#files[@]} files clean"
