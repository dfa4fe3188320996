#!/bin/bash
# Cross-builds the library, the examples and the whole test suite for the
# device (32-bit ARM, armhf) in build-armhf and runs the suite there under
# qemu-user. Ends with the count of tests run, passed, skipped and failed,
# and why each skipped test was skipped.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/test-summary.sh
bash scripts/install-deps.sh

dir=build-armhf
jobs=$(nproc)
# No GoogleTest is installed for armhf: it is built from Debian's sources
# (package googletest) with the cross tool chain. 64-bit time and file
# offsets, as Debian 13 and OpenEmbedded build for 32-bit ARM.
wide='-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64'
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS="$wide" -DCMAKE_CXX_FLAGS="$wide" \
  -DQEL_UTIL_GTEST_FROM_SOURCE=/usr/src/googletest \
  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake >/dev/null
cmake --build "$dir" -j "$jobs"
status=0
ctest --test-dir "$dir" -j "$jobs" --output-on-failure || status=$?

test_summary armhf "$dir/Testing/Temporary/LastTest.log"
exit "$status"
