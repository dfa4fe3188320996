#!/bin/bash
# Installs the Debian packages the build, the tests and the demonstration
# need, when any is missing. Needs root (or sudo) only when something is
# missing.
set -euo pipefail
source "$(dirname "$0")/lib/progress.sh"

quiet_install \
  build-essential cmake pkg-config \
  libgtest-dev libgmock-dev googletest libbenchmark-dev \
  clang libclang-rt-14-dev \
  iproute2 util-linux procps python3 dpkg-dev \
  zlib1g-dev mmc-utils i2c-tools libubootenv-tool \
  g++-arm-linux-gnueabihf qemu-user \
  doxygen nlohmann-json3-dev libdw-dev elfutils
