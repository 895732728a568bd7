#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Every function that the shared library exports has a definition in the library's sources that
# ends with the C boundary's handler ("} catch (...) {" closing its function-try-block).
#   tests/check_c_boundary.sh LIBKARST_SO SOURCE_DIR
set -euo pipefail
lib=$1
sources=$2

# Each definition in column 0 of the sources, with whether a handler follows its body (the
# first "}" in column 0 after the head, or the head itself for a one-line body).
guarded=$(find "$sources" -name '*.cpp' -print0 | xargs -0 awk '
    function finish(line) {
        if (line ~ /catch/) { print name }
        inside = 0
    }
    !inside && /^[A-Za-z_].*[ *][A-Za-z_][A-Za-z_0-9]*\(/ && !/;$/ && !/^(namespace|struct|class|using)/ {
        head = $0
        sub(/\(.*/, "", head)
        name = head
        sub(/.*[ *]/, "", name)
        inside = 1
        if ($0 ~ /}$/ || $0 ~ /catch/) { finish($0) }
        next
    }
    inside && /^}/ { finish($0) }' | sort -u)

count=0
missing=0
for name in $(nm -D --defined-only --without-symbol-versions "$lib" | awk '$2 == "T" { print $3 }'); do
    count=$((count + 1))
    if ! grep -qx -- "$name" <<<"$guarded"; then
        echo "no exception guard: $name"
        missing=$((missing + 1))
    fi
done
echo "$count exported functions, $missing without a guard"
[ "$missing" -eq 0 ]
