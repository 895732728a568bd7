#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# armhf_sysroot.sh DEST [PKG...]
#
# Populate DEST with Debian's armhf builds of the target libraries karst links
# against, for cross compiling with arm-linux-gnueabihf-g++ and running under
# qemu-arm.  The packages are fetched with `apt-get download` through a private
# apt state (own lists/cache, APT::Architecture=armhf) that reuses the host's
# sources and keys, and unpacked with `dpkg -x`.  Nothing is installed on the
# host and the host's dpkg architecture list is not touched.
#
# Idempotent: a package whose candidate version is already unpacked in DEST is
# skipped.  Absolute symlinks (e.g. libz.so -> /lib/arm-linux-gnueabihf/...)
# are rewritten to relative ones so they resolve inside DEST.
#
# Environment:
#   KARST_ARMHF_APT_DIR      private apt state/cache (default: DEST/.apt)
#   KARST_ARMHF_APT_MAX_AGE  refresh the armhf package lists when older than
#                            this many seconds (default 86400; 0 = always)
#   KARST_ARMHF_APT_SOURCES  a sources file (.list or .sources) to use instead
#                            of the host's /etc/apt sources
set -euo pipefail

die() { echo "armhf_sysroot: error: $*" >&2; exit 1; }
log() { echo "armhf_sysroot: $*"; }

[[ $# -ge 1 ]] || die "usage: $0 DEST [PKG...]"
DEST=$1; shift
DEFAULT_PKGS=(zlib1g zlib1g-dev libssl3 libssl-dev)
if [[ $# -gt 0 ]]; then PKGS=("$@"); else PKGS=("${DEFAULT_PKGS[@]}"); fi

for tool in apt-get apt-cache dpkg dpkg-deb realpath; do
  command -v "$tool" >/dev/null || die "'$tool' not found (a Debian host is required)"
done

mkdir -p "$DEST"
DEST=$(realpath "$DEST")
APT_DIR=${KARST_ARMHF_APT_DIR:-$DEST/.apt}
MAX_AGE=${KARST_ARMHF_APT_MAX_AGE:-86400}
STAMP_DIR=$DEST/.karst-sysroot
mkdir -p "$APT_DIR"/{state/lists/partial,cache/archives/partial,debs,etc} "$STAMP_DIR"
: >"$APT_DIR/state/status" # empty dpkg status: nothing "installed" for armhf

# Private apt configuration.  Read via APT_CONFIG, i.e. after the host's
# apt.conf.d, so the #clear below wins over any host multiarch setting.
CONF=$APT_DIR/etc/apt.conf
{
  echo "#clear APT::Architectures;"
  echo 'APT::Architecture "armhf";'
  echo 'APT::Architectures { "armhf"; };'
  echo "Dir::State \"$APT_DIR/state\";"
  echo "Dir::State::status \"$APT_DIR/state/status\";"
  echo "Dir::Cache \"$APT_DIR/cache\";"
  echo 'Acquire::Languages "none";'
  echo 'Acquire::IndexTargets::deb::Contents-deb::DefaultEnabled "false";'
  echo 'APT::Get::List-Cleanup "true";'
  if [[ -n ${KARST_ARMHF_APT_SOURCES:-} ]]; then
    src=$(realpath "$KARST_ARMHF_APT_SOURCES")
    mkdir -p "$APT_DIR/etc/sources.list.d"
    cp -f "$src" "$APT_DIR/etc/sources.list.d/$(basename "$src")"
    echo "Dir::Etc::SourceList \"/dev/null\";"
    echo "Dir::Etc::SourceParts \"$APT_DIR/etc/sources.list.d\";"
  fi
} >"$CONF.new"
mv -f "$CONF.new" "$CONF"
export APT_CONFIG=$CONF

# apt fetches as the unprivileged _apt user when run as root; let it write.
if [[ $(id -u) -eq 0 ]] && id _apt >/dev/null 2>&1; then
  chown -R _apt:root "$APT_DIR/state/lists/partial" "$APT_DIR/cache/archives/partial" "$APT_DIR/debs" 2>/dev/null || true
fi

# Refresh the armhf package lists when missing or stale.
lists_age() {
  local newest
  newest=$(find "$APT_DIR/state/lists" -maxdepth 1 -name '*_Packages*' -printf '%T@\n' 2>/dev/null | sort -n | tail -1)
  [[ -n $newest ]] || { echo 999999999; return; }
  echo $(( $(date +%s) - ${newest%.*} ))
}
if (( $(lists_age) >= MAX_AGE )); then
  log "updating armhf package lists in $APT_DIR"
  if ! apt-get update -qq; then
    if (( $(lists_age) < 999999999 )); then
      log "warning: apt-get update failed, using existing armhf lists"
    else
      die "apt-get update for armhf failed and no lists are available"
    fi
  fi
fi

candidate() { # prints the armhf candidate version of $1, or nothing
  apt-cache policy "$1:armhf" 2>/dev/null | awk '/Candidate:/ {print $2; exit}'
}

fix_symlinks() { # make absolute symlinks inside DEST relative to DEST
  local link target abs
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    [[ $target == /* ]] || continue
    abs=$DEST$target
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$abs")" "$link"
  done < <(find "$DEST" -path "$APT_DIR" -prune -o -type l -print0)
}

changed=0
for pkg in "${PKGS[@]}"; do
  ver=$(candidate "$pkg")
  [[ -n $ver && $ver != "(none)" ]] || die "no armhf candidate for '$pkg'"
  stamp=$STAMP_DIR/$pkg
  if [[ -f $stamp && $(cat "$stamp") == "$ver" ]]; then
    log "$pkg:armhf $ver already unpacked"
    continue
  fi
  log "fetching $pkg:armhf $ver"
  rm -f "$APT_DIR/debs/"*.deb
  (cd "$APT_DIR/debs" && apt-get download -qq "$pkg:armhf=$ver")
  deb=$(find "$APT_DIR/debs" -maxdepth 1 -name "${pkg}_*_armhf.deb" | head -1)
  [[ -n $deb ]] || die "download of $pkg:armhf=$ver produced no .deb"
  [[ $(dpkg-deb -f "$deb" Version) == "$ver" && $(dpkg-deb -f "$deb" Architecture) == armhf ]] \
    || die "unexpected package file $deb"
  # drop files of a previously unpacked version, then unpack the new one
  if [[ -f $STAMP_DIR/$pkg.files ]]; then
    (cd "$DEST" && xargs -r -a "$STAMP_DIR/$pkg.files" -d '\n' rm -f --) || true
  fi
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {sub(/^\.\//, "", $6); print $6}' >"$STAMP_DIR/$pkg.files"
  dpkg -x "$deb" "$DEST"
  echo "$ver" >"$stamp"
  rm -f "$deb"
  changed=1
done

((changed)) && fix_symlinks

# Same version as the host's amd64 package?  (Multi-arch: same should match.)
for pkg in "${PKGS[@]}"; do
  hv=$(dpkg-query -W -f='${Version}' "$pkg:amd64" 2>/dev/null || true)
  av=$(cat "$STAMP_DIR/$pkg")
  if [[ -n $hv && $hv != "$av" ]]; then
    log "note: $pkg host(amd64)=$hv, sysroot(armhf)=$av"
  fi
done

# Sanity: the linkable libraries resolve inside DEST.
for so in usr/lib/arm-linux-gnueabihf/libz.so usr/lib/arm-linux-gnueabihf/libcrypto.so; do
  if [[ -L $DEST/$so && ! -e $DEST/$so ]]; then
    die "dangling symlink $DEST/$so -> $(readlink "$DEST/$so")"
  fi
done
log "sysroot ready: $DEST"
