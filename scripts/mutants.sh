#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# How many plausible faults the test suite finds. Each mutant of scripts/mutants.txt (a file, an
# exact text that stands once in it, its replacement) is applied in turn to the working tree,
# the host build is rebuilt incrementally and the suite run; then the file is restored. A
# mutant that does not build does not count.
#   scripts/mutants.sh [NAME...]     (default: every mutant)
# Environment: KARST_MUTANTS_BUILD (default build/mutants), KARST_MUTANTS_LIST.
# A developer's tool: not part of the test command.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${KARST_MUTANTS_BUILD:-build/mutants}
list=${KARST_MUTANTS_LIST:-scripts/mutants.txt}
jobs=$(nproc)
wanted=("$@")

# Every mutant relinks the library and every program: lld, where it is installed, links faster.
link=()
if command -v ld.lld >/dev/null; then
    link=(-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld -DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld)
fi
cmake -S . -B "$build" -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Debug \
      -DKARST_BENCH=OFF "${link[@]}" >/dev/null
cmake --build "$build" -j "$jobs" >/dev/null
run_suite() {
    ctest --test-dir "$build" -j "$jobs" --timeout 120 --stop-on-failure >"$build/mutant.log" 2>&1
}
if ! run_suite; then
    echo "mutants: the suite fails without any mutant ($build/mutant.log)" >&2
    exit 1
fi

backup=$(mktemp)
current=""
restore() { [ -n "$current" ] && cp "$backup" "$current" && current=""; }
trap 'restore; rm -f "$backup"' EXIT

killed=0
total=0
unbuilt=0
survivors=()

# try NAME FILE FROM TO
try() {
    local name=$1 file=$2 from=$3 to=$4 count
    if [ ${#wanted[@]} -gt 0 ] && ! printf '%s\n' "${wanted[@]}" | grep -qx -- "$name"; then
        return
    fi
    count=$(FROM=$from perl -0ne 'my $n = () = /\Q$ENV{FROM}\E/g; print $n' "$file")
    if [ "$count" != 1 ]; then
        echo "mutants: $name: the text stands $count times in $file" >&2
        exit 2
    fi
    cp "$file" "$backup"
    current=$file
    FROM=$from TO=$to perl -0pi -e 's/\Q$ENV{FROM}\E/$ENV{TO}/' "$file"
    if ! cmake --build "$build" -j "$jobs" >"$build/mutant-build.log" 2>&1; then
        echo "no build  $name"
        unbuilt=$((unbuilt + 1))
    else
        total=$((total + 1))
        if run_suite; then
            echo "SURVIVED  $name"
            survivors+=("$name")
        else
            echo "killed    $name"
            killed=$((killed + 1))
        fi
    fi
    restore
}

# The list: blocks of "mutant:", "file:", "from:", "to:" lines, separated by blank lines;
# lines starting with '#' are comments.
name="" file="" from="" to=""
while IFS= read -r line || [ -n "$line" ]; do
    case "$line" in
    "#"*) ;;
    "mutant: "*) name=${line#mutant: } ;;
    "file: "*) file=${line#file: } ;;
    "from: "*) from=${line#from: } ;;
    "to: "*) to=${line#to: } ;;
    "to:") to="" ;;
    "")
        [ -n "$name" ] && try "$name" "$file" "$from" "$to"
        name="" file="" from="" to=""
        ;;
    *)
        echo "mutants: cannot read: $line" >&2
        exit 2
        ;;
    esac
done <"$list"
[ -n "$name" ] && try "$name" "$file" "$from" "$to"

# Rebuild the unmutated tree, so that the build directory matches the sources again.
cmake --build "$build" -j "$jobs" >/dev/null

echo
if [ ${#survivors[@]} -gt 0 ]; then
    echo "survivors: ${survivors[*]}"
fi
[ "$unbuilt" -gt 0 ] && echo "($unbuilt mutants did not build and do not count)"
echo "killed $killed of $total"
