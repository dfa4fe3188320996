#!/bin/bash
# Builds the Debian packages for the build machine and for armhf and proves
# them the way a user takes them:
#   - lintian --pedantic reports no error and no warning (an override
#     would go in debian/*.lintian-overrides with its reason; none is needed);
#   - in a throw-away root, the amd64 and armhf packages install side by
#     side with the API reference (libqel-util-doc, from the build
#     machine's build), whose doc-base entry names an index page that is
#     there, the tools run, and a small program builds against each with
#     find_package(qel_util) and with pkg-config: natively, and cross for
#     armhf with the project's tool chain file alone, run under qemu-user;
#   - the installed qel-devsim finds the installed emulators of both
#     architectures: it runs the amd64 qel-devinfo and the armhf one (taken
#     out of the armhf qel-util-tools, which does not install beside the
#     amd64 one) on a simulated device whose hardware ID they print.
# Needs root (mount namespace, chroot).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
source_dir=$PWD
. scripts/lib/multiarch.sh
. scripts/lib/progress.sh
native=$(dpkg --print-architecture)
cross=armhf
start=$SECONDS

bash scripts/package.sh >/dev/null
bash scripts/package.sh "$cross" >/dev/null

quiet_install lintian
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
  # build machine's. Runtime, -dev and emulator packages of both go in
  # together, with the Multi-Arch: same packages they pull at one version.
  local same=(libqel-util1 libqel-util-dev qel-util-devsim-emulators)
  local debs=("$source_dir"/build-pkg/{qel-util-tools,libqel-util-doc}_*.deb)
  for package in "${same[@]}"; do
    debs+=("$source_dir/build-pkg/${package}"_*.deb
           "$source_dir/build-pkg-$cross/${package}"_*.deb)
  done
  local pinned=()
  for package in libc6 libgcc-s1 gcc-12-base libstdc++6 linux-libc-dev; do
    mapfile -t -O ${#pinned[@]} pinned < <(same_version "$package" "$native" "$cross")
  done
  in_root apt-get install -y -qq --no-install-recommends --allow-downgrades \
    "${debs[@]}" "${pinned[@]}" >"$root/tmp/apt.log" 2>&1 ||
    { cat "$root/tmp/apt.log" >&2; echo "package-check: the packages do not install side by side" >&2; exit 1; }
  in_root dpkg-query -W -f='${Package}:${Architecture} ${Version}\n' \
    'libqel-util*' 'qel-util-*' | sed 's/^/package-check: installed /'

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

  # The installed qel-devsim runs programs of both architectures on a
  # simulated device, with the emulators that the packages installed: the
  # hardware ID reaches the program only through the RPMB emulator.
  devsim_runs() {  # ARCHITECTURE PROGRAM HWID
    in_root /usr/bin/qel-devsim --hwid "$3" -- "$2" >"$root/tmp/devsim.log" 2>&1 &&
      grep -q "^device ID: *$3 " "$root/tmp/devsim.log" ||
      { cat "$root/tmp/devsim.log" >&2
        echo "package-check: the installed qel-devsim does not run the $1 $2" >&2
        exit 1; }
    echo "package-check: the installed qel-devsim runs the $1 $2"
  }
  devsim_runs "$native" /usr/bin/qel-devinfo PKGCHECK
  local armhf_tools=/tmp/qel-util-tools-$cross
  dpkg-deb -x "$source_dir/build-pkg-$cross"/qel-util-tools_*.deb "$root$armhf_tools"
  devsim_runs "$cross" "$armhf_tools/usr/bin/qel-devinfo" PKGARM

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
