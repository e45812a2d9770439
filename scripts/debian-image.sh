#!/usr/bin/env bash
# A minimal Debian 12 image that nobody here wrote, for the end-to-end tests (root only).
#   debian-image.sh image   imports tarnwick/debian12:latest from a debootstrap --variant=minbase
#                           root filesystem, built once and cached as a tarball
#   debian-image.sh debs    downloads the test packages (apt-get download) into the cache
# Settings: TARNWICK_CACHE (/var/cache/tarnwick), DEBIAN_IMAGE (tarnwick/debian12:latest),
# DEBIAN_MIRROR (the first deb.debian.org-style URI of the host's apt sources).
set -euo pipefail

CACHE=${TARNWICK_CACHE:-/var/cache/tarnwick}
DEBIAN_IMAGE=${DEBIAN_IMAGE:-tarnwick/debian12:latest}
ROOTFS_TAR="$CACHE/debian12-minbase.tar"
DEB_DIR="$CACHE/debs"
# Small packages with ELF executables whose dependencies a minbase system already has.
TEST_PACKAGES=(tree pv patch less psmisc)

die() { echo "debian-image.sh: $*" >&2; exit 1; }

mirror() {
  if [ -n "${DEBIAN_MIRROR:-}" ]; then echo "$DEBIAN_MIRROR"; return; fi
  local uri
  uri=$(grep -hE '^(URIs:|deb )' /etc/apt/sources.list /etc/apt/sources.list.d/*.sources \
          /etc/apt/sources.list.d/*.list 2>/dev/null | grep -v security | head -n 1 |
        sed -E 's/^URIs:[[:space:]]*//; s/^deb[[:space:]]+(\[[^]]*\][[:space:]]+)?//' |
        awk '{print $1}')
  echo "${uri:-http://deb.debian.org/debian}"
}

build_rootfs() {
  [ -s "$ROOTFS_TAR" ] && return 0
  command -v debootstrap >/dev/null || die "debootstrap missing (scripts/setup.sh installs it)"
  mkdir -p "$CACHE"
  local dir
  dir=$(mktemp -d "$CACHE/rootfs.XXXXXX")
  echo "debian-image.sh: debootstrap --variant=minbase bookworm (once; cached in $ROOTFS_TAR)"
  if ! debootstrap --variant=minbase bookworm "$dir" "$(mirror)" >"$CACHE/debootstrap.log" 2>&1; then
    tail -n 20 "$CACHE/debootstrap.log" >&2
    rm -rf "$dir"
    die "debootstrap failed (log $CACHE/debootstrap.log)"
  fi
  rm -rf "$dir"/var/cache/apt/archives/*.deb "$dir"/var/lib/apt/lists/*
  tar -C "$dir" -cf "$ROOTFS_TAR.tmp" .
  mv "$ROOTFS_TAR.tmp" "$ROOTFS_TAR"
  rm -rf "$dir"
}

image() {
  if docker image inspect "$DEBIAN_IMAGE" >/dev/null 2>&1; then return 0; fi
  build_rootfs
  docker import -c 'CMD ["/bin/bash"]' "$ROOTFS_TAR" "$DEBIAN_IMAGE" >/dev/null
  echo "debian-image.sh: imported $DEBIAN_IMAGE"
}

debs() {
  mkdir -p "$DEB_DIR"
  local p missing=()
  for p in "${TEST_PACKAGES[@]}"; do
    compgen -G "$DEB_DIR/${p}_*.deb" >/dev/null || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  (cd "$DEB_DIR" && apt-get download "${missing[@]}" >/dev/null) ||
    die "apt-get download ${missing[*]} failed"
}

case "${1:-}" in
  image) image ;;
  debs) debs ;;
  *) die "usage: debian-image.sh image|debs" ;;
esac
