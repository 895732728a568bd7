#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Stand-in for the board's REE data tool, installed by the emulator's set-up as
# <run root>/usr/bin/reedata_tool.sh.
#
#   reedata_tool.sh 1 NONCE   makes <run root>/tmp/ReeData.tgz: a gzip'ed tar archive of a folder
#                             "ReeData" holding the nonce, the time, the kernel's identity and
#                             listings of the run root's /nv1 and /tmp
#   reedata_tool.sh 2         removes the archive and its working folder
#
# The run root is found from the script's own place (two folders above usr/bin).
set -u

root=$(CDPATH='' cd -- "$(dirname -- "$0")/../.." && pwd) || exit 1
tmp="$root/tmp"
work="$tmp/reedata_work"
archive="$tmp/ReeData.tgz"

case "${1:-}" in
1)
    [ $# -eq 2 ] || { echo "usage: $0 1 NONCE" >&2; exit 2; }
    rm -rf -- "$work" "$archive"
    mkdir -p -- "$work/ReeData" || exit 1
    printf '%s\n' "$2" > "$work/ReeData/nonce.txt"
    date -u '+%Y-%m-%dT%H:%M:%SZ' > "$work/ReeData/time.txt"
    uname -srm > "$work/ReeData/kernel.txt"
    ls -l -- "$root/nv1" > "$work/ReeData/nv1.txt" 2>&1
    ls -l -- "$tmp" > "$work/ReeData/tmp.txt" 2>&1
    tar -C "$work" -czf "$archive" ReeData
    ;;
2)
    rm -rf -- "$work" "$archive"
    ;;
*)
    echo "usage: $0 1 NONCE | 2" >&2
    exit 2
    ;;
esac
