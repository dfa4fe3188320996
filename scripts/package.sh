#!/bin/bash
# Builds the Debian packages libqel-util1 (runtime) and libqel-util-dev for
#   scripts/package.sh          the build machine (build-pkg/)
#   scripts/package.sh armhf    the device (build-pkg-armhf/)
# and prints their paths. They install under /usr, the library in Debian's
# multiarch directory.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
      -DQEL_UTIL_BUILD_TESTS=OFF -DQEL_UTIL_BUILD_EXAMPLES=OFF)
case ${1:-native} in
  native) dir=build-pkg ;;
  armhf)
    dir=build-pkg-armhf
    # CMake picks the multiarch directory for native builds only.
    args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
           -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf) ;;
  *) echo "unknown target: $1" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" "${args[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
(cd "$dir" && cpack -G DEB >/dev/null 2>&1)
ls "$PWD/$dir"/*.deb
