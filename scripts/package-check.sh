#!/bin/bash
# Builds the Debian packages for the build machine and for armhf and proves
# them the way a user takes them:
#   - lintian --pedantic reports no error and no warning (overrides, each
#     with its reason, are in debian/*.lintian-overrides);
#   - in a throw-away root, the amd64 and armhf packages install side by
#     side with the API reference (libqel-util-doc, from the build
#     machine's build), whose doc-base entry names an index page that is
#     there, the tools run, and a small program builds against each with
#     find_package(qel_util) and with pkg-config: natively, and cross for
#     armhf with the project's tool chain file alone, run under qemu-user.
# Needs root (mount namespace, chroot).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
source_dir=$PWD
. scripts/multiarch.sh
native=$(dpkg --print-architecture)
cross=armhf
start=$SECONDS

bash scripts/package.sh >/dev/null
bash scripts/package.sh "$cross" >/dev/null

if ! command -v lintian >/dev/null; then
  # A failing index (a mirror in mid-sync) is no reason to stop: the
  # install fails clearly if lintian is really out of reach.
  apt-get update -qq || echo "package-check: apt-get update reported errors" >&2
  apt-get install -y -qq --no-install-recommends lintian >/dev/null
fi
for changes in build-pkg/*.changes "build-pkg-$cross"/*.changes; do
  # Info and pedantic tags are shown; an error or a warning fails.
  lintian --pedantic --info --fail-on error,warning "$changes" 2>/dev/null ||
    { echo "package-check: lintian rejects $changes" >&2; exit 1; }
done
echo "package-check: lintian: no error, no warning"

check_in_root() {
  . scripts/lib/throwaway-root.sh
  make_root "$base" "$source_dir"
  in_root dpkg --add-architecture "$cross"
  # The tools are Multi-Arch: foreign, one architecture at a time: the
  # build machine's. Runtime and -dev packages of both go in together, with
  # the Multi-Arch: same packages they pull at one version.
  local debs=("$source_dir"/build-pkg/{libqel-util1,libqel-util-dev,qel-util-tools,libqel-util-doc}_*.deb
              "$source_dir/build-pkg-$cross"/{libqel-util1,libqel-util-dev}_*.deb)
  local pinned=()
  for package in libc6 libgcc-s1 gcc-12-base libstdc++6 linux-libc-dev; do
    mapfile -t -O ${#pinned[@]} pinned < <(same_version "$package" "$native" "$cross")
  done
  in_root apt-get install -y -qq --no-install-recommends --allow-downgrades \
    "${debs[@]}" "${pinned[@]}" >"$root/tmp/apt.log" 2>&1 ||
    { cat "$root/tmp/apt.log" >&2; echo "package-check: the packages do not install side by side" >&2; exit 1; }
  in_root dpkg-query -W -f='${Package}:${Architecture} ${Version}\n' \
    'libqel-util*' qel-util-tools | sed 's/^/package-check: installed /'

  # Documentation browsers open the reference at the page its doc-base
  # entry names: the package must hold it.
  local index
  index=$(sed -n 's/^Index: *//p' "$root/usr/share/doc-base/libqel-util-doc.libqel-util")
  [ "$index" = /usr/share/doc/libqel-util-doc/html/index.html ] && [ -f "$root$index" ] ||
    { echo "package-check: no API reference at '$index'" >&2; exit 1; }

  # The tools run from the package: qel-neighbour finds no ARP entry for
  # the loopback address.
  in_root qel-devinfo --help >/dev/null
  in_root qel-neighbour 127.0.0.1 | grep -qx '127.0.0.1 0'

  in_root bash "$source_dir/scripts/consumer-test.sh" system
  in_root env CXX=arm-linux-gnueabihf-g++ QEL_EMULATOR="qemu-arm -L /" \
    QEL_TOOLCHAIN_FILE="$source_dir/cmake/toolchains/arm-linux-gnueabihf.cmake" \
    bash "$source_dir/scripts/consumer-test.sh" system arm-linux-gnueabihf
}

# The root's mounts live in a private mount namespace and end with it.
base=$(mktemp -d "${TMPDIR:-/tmp}/qel-root.XXXXXX")
trap 'rmdir "$base"' EXIT
export -f check_in_root same_version offered_versions
export source_dir native cross base
unshare --mount --propagation private bash -euo pipefail -c check_in_root
echo "package-check: all passed in $((SECONDS - start)) s"
