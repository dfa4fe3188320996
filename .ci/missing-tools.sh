#!/bin/bash
# ctest run directly on a machine that lacks the host programs some tests
# drive must skip those tests with the reason, never fail them. The programs
# are hidden in a private mount namespace (a non-executable file over each),
# so the machine itself keeps them.
#   .ci/missing-tools.sh BUILD_DIR
set -euo pipefail
dir=${1:?build directory}
hidden=(mmc i2ctransfer i2cget i2cset i2cdetect python3 ip bridge fw_setenv
        fw_printenv start-stop-daemon pkg-config)
blank=$(mktemp)
trap 'rm -f "$blank"' EXIT
exec unshare --mount bash -euo pipefail -c '
  blank=$1 dir=$2; shift 2
  for name in "$@"; do
    for path in /usr/bin/$name /usr/sbin/$name; do
      [ -e "$path" ] && mount --bind "$blank" "$path"
    done
  done
  echo "ctest with $* hidden:"
  status=0
  PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    ctest --test-dir "$dir" -j "$(nproc)" --output-on-failure >"$dir/missing-tools.log" 2>&1 ||
    status=$?
  sed -n "/tests passed/,\$p" "$dir/missing-tools.log"
  [ "$status" -eq 0 ] ||
    { echo "a missing host program failed a test instead of skipping it"; exit 1; }
  # Each skip names what is missing and the package that brings it.
  for reason in "mmc (Debian package mmc-utils" \
                "python3 (Debian package python3" "ip (Debian package iproute2" \
                "/usr/bin/fw_setenv (Debian package libubootenv-tool" \
                "start-stop-daemon (Debian package dpkg" "pkg-config (Debian package pkg-config"; do
    grep -qF "needs $reason" "$dir/Testing/Temporary/LastTest.log" ||
      { echo "no test skipped, saying: needs $reason"; exit 1; }
  done
  echo "every test that drives a hidden program skipped, naming its package"
' _ "$blank" "$dir" "${hidden[@]}"
