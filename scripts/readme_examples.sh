#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the shell examples of README.md as a reader pastes them after the quick start:
#   scripts/readme_examples.sh
# Which blocks run: every fenced block whose info string begins with "sh", after the "Quick
# start" section (whose commands are scripts/demo.sh and scripts/test.sh themselves), in the
# order they appear, all in one bash (so that a variable one block exports is there in the
# next) with -e, -u and pipefail. A block for a board, which needs the board's toolchain or
# files, is marked "```sh board" and is not run.
#
# Where they run: from the clone's top folder, where the quick start leaves the reader, with
# its build/host (scripts/test.sh's) already built. HOME and TMPDIR point into a scratch folder
# that is removed afterwards, so an install under $HOME, mktemp's folders and the examples' own
# files all land there; the examples must not leave files in the clone, which is checked.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -x build/host/tools/karstctl/karstctl ] || {
    echo "readme_examples: build build/host first (scripts/test.sh does)" >&2
    exit 2
}

scratch=$(mktemp -d /tmp/karst-readme-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/home" "$scratch/tmp"

{
    echo 'set -euo pipefail'
    echo "trap 'echo \"readme_examples: README.md block \$readme_block (line \$readme_line) failed\" >&2' ERR"
    awk '
        /^## / { if (quick) past = 1; if ($0 == "## Quick start") quick = 1 }
        /^```/ && !inside {
            inside = 1
            info = substr($0, 4)
            run = past && info ~ /^sh( |$)/ && info !~ / board( |$)/
            if (run) { printf "readme_block=%d readme_line=%d\n", ++blocks, NR + 1 }
            next
        }
        /^```/ && inside { inside = 0; next }
        inside && run { print }
        END { printf "echo \"readme_examples: %d blocks of README.md ran in $SECONDS s\"\n", blocks }
    ' README.md
} >"$scratch/examples.sh"

# The examples' output goes to a log, shown when one fails.
before=$(git status --porcelain --untracked-files=all)
if ! env -u KARST_ROOT -u PKG_CONFIG_PATH HOME="$scratch/home" TMPDIR="$scratch/tmp" \
    bash "$scratch/examples.sh" >"$scratch/log" 2>&1; then
    tail -n 40 "$scratch/log" >&2
    exit 1
fi
tail -n 1 "$scratch/log"
after=$(git status --porcelain --untracked-files=all)
if [ "$before" != "$after" ]; then
    echo "readme_examples: the examples changed the clone:" >&2
    diff <(echo "$before") <(echo "$after") >&2 || true
    exit 1
fi
