#!/bin/bash
# Installs the Debian packages the build, the tests and the demonstration
# need, when any is missing. Needs root (or sudo) only when something is
# missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  clang libclang-rt-14-dev
  iproute2 util-linux socat python3 dpkg-dev
  zlib1g-dev mmc-utils i2c-tools libubootenv-tool
  g++-arm-linux-gnueabihf qemu-user
  doxygen nlohmann-json3-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# An index that fails to download (a mirror in mid-sync, say the armhf one
# that the packaging adds) must not stop the run while the packages still
# install: the install below fails clearly when one is really missing.
$sudo apt-get update -qq ||
  echo "install-deps: apt-get update reported errors; going on with the lists it has" >&2
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
