#!/bin/bash
# Runs the README's two commands the way a newcomer meets them: in a minimal
# Debian 12 root made for this run (only ca-certificates and git added), on a
# fresh clone of the project, each command in its own login shell as root
# with no standard input. A package that the project's scripts forget to
# install fails here, whatever the CI machine itself has.
#   .ci/fresh-root.sh [--include PACKAGE,...] [command...]
# Without a command: the README's two commands. --include adds packages to
# the root beyond ca-certificates and git.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
source scripts/lib/throwaway-root.sh

include=ca-certificates,git
if [ "${1:-}" = --include ]; then
  include+=,$2
  shift 2
fi
commands=("$@")
if [ ${#commands[@]} -eq 0 ]; then
  # The README is the source of truth: its first sh block holds the two.
  mapfile -t commands < <(awk '/^```sh/ { on = 1; next } /^```/ { if (on) exit }
                               on { sub(/ *#.*/, ""); if ($0 != "") print }' README.md)
fi

quiet_install mmdebstrap

root=$(mktemp -d /var/tmp/qel-fresh-root.XXXXXX)
cleanup() {
  umount -R "$root" 2>/dev/null || umount -lR "$root" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT

# Downloaded packages are kept between runs: that saves time only, every
# package still has to be asked for by the project's own scripts.
cache=/var/cache/qel-util-ci/apt
mkdir -p "$cache"

sources=/etc/apt/sources.list.d/debian.sources
[ -f "$sources" ] || sources=/etc/apt/sources.list
step "making a fresh Debian 12 root with $include" \
  mmdebstrap --variant=minbase --include="$include" \
    --skip=essential/unlink \
    --setup-hook='mkdir -p "$1"/var/cache/apt/archives' \
    --setup-hook="sync-in $cache /var/cache/apt/archives/" \
    --customize-hook="sync-out /var/cache/apt/archives $cache" \
    bookworm "$root" "$sources"

# Namespaces, overlays and bridges need the root to be a mount point.
mount --bind "$root" "$root"
mount_system_dirs "$root"
mkdir -p "$root/var/cache/apt/archives"
mount --bind "$cache" "$root/var/cache/apt/archives"
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true

mkdir -p "$root/work"
git clone -q "$PWD" "$root/work/main"
[ -d ../shared ] && cp -r ../shared "$root/work/shared"

for command in "${commands[@]}"; do
  note "fresh root: $command"
  start=$SECONDS
  chroot "$root" /usr/bin/env -i HOME=/root TERM=dumb \
    /bin/bash -lc "cd /work/main && $command" </dev/null
  note "fresh root: '$command' passed in $((SECONDS - start)) s"
done
