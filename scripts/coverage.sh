#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Line coverage of the library (src/libkarst) by the whole test suite: a gcov build in
# build/coverage, ctest, then gcovr. Prints the lines covered per module and in total; the
# per-file report is in build/coverage/html/index.html.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev zlib1g-dev openssl libcli11-dev googletest gcovr python3
jobs=$(nproc)
build=build/coverage

cmake -S . -B "$build" -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Debug \
    -DKARST_COVERAGE=ON -DKARST_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs"
# Counts of an earlier run would add up with this one's.
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300

rm -rf "$build/html"
mkdir -p "$build/html"
# The exception handlers of the C interface (one macro after each exported definition) are
# left out: the out-of-memory test runs them for a sample of calls.
gcovr --root . --filter 'src/libkarst/' --exclude-lines-by-pattern '.*KARST_CAUGHT.*' \
    --json-summary "$build/coverage.json" --html-details "$build/html/index.html" "$build" >/dev/null

# One line per module (the directories of src/libkarst), then the total.
python3 - "$build/coverage.json" <<'EOF'
import collections, json, sys

files = json.load(open(sys.argv[1]))["files"]
modules = collections.defaultdict(lambda: [0, 0])
for f in files:
    module = f["filename"].split("/")[2]
    modules[module][0] += f["line_covered"]
    modules[module][1] += f["line_total"]
print(f"{'module':<12} {'lines':>6} {'covered':>8} {'percent':>8}")
covered = total = 0
for module, (c, t) in sorted(modules.items()):
    print(f"{module:<12} {t:>6} {c:>8} {100.0 * c / t:>7.1f}%")
    covered += c
    total += t
print(f"{'total':<12} {total:>6} {covered:>8} {100.0 * covered / total:>7.1f}%")
EOF
echo "Per-file report: $build/html/index.html"
