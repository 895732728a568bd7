#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the project needs, when they are missing.
#   scripts/deps.sh [PACKAGE...]   the base set plus any packages named
set -euo pipefail

base=(cmake ninja-build g++ pkg-config libgtest-dev zlib1g-dev)
wanted=("${base[@]}" "$@")

missing=()
for pkg in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$pkg")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing Debian packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
