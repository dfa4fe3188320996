#!/bin/bash
# Builds and runs the test suite.
#   scripts/test.sh              plain build (build/)
#   scripts/test.sh asan         AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan         ThreadSanitizer, the thread and IPC tests
#   scripts/test.sh clang-ubsan  clang's UndefinedBehaviorSanitizer, whose
#                                checks (enum, function, ...) GCC lacks
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
bash scripts/install-deps.sh

kind=${1:-plain}
case "$kind" in
  plain)
    dir=build; flags=""; filter=() ;;
  asan)
    dir=build-asan
    # The vptr check cannot work while a test has used up every descriptor
    # (it reports sound virtual calls then), so it is left out.
    flags="-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
    filter=() ;;
  tsan)
    dir=build-tsan; flags="-fsanitize=thread"
    filter=(-R '^(PosixThread|MsgQHandler|SysVSemaphoreMutex)') ;;
  clang-ubsan)
    dir=build-clang-ubsan; export CC=clang CXX=clang++
    # As in asan, the vptr check is left out.
    flags="-fsanitize=undefined -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer"
    filter=() ;;
  *) echo "unknown build kind: $kind" >&2; exit 2 ;;
esac

build_tree . "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags"
note "running the tests ($dir)"
ctest --test-dir "$dir" -j "$(nproc)" --output-on-failure "${filter[@]}"
