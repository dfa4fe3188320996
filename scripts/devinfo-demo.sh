#!/bin/bash
# Runs qel-devinfo on a made-up device: inside private namespaces, fixtures
# stand in for the kernel command line, the eMMC CID register and the
# firmware version script, and the RPMB emulator of the tests serves a
# hardware-ID record. Nothing on the host is changed.
#
# usage: scripts/devinfo-demo.sh [build-dir]   (default: build)
set -euo pipefail

if [ "${1:-}" = "--inside" ]; then
  fixtures=$2 build=$3
  mount --bind "$fixtures/cmdline" /proc/cmdline
  # The library logs failures; they stay out of the host's log.
  if [ -e /dev/log ]; then
    : >"$fixtures/nolog"
    mount --bind "$fixtures/nolog" /dev/log
  fi
  # The CID attribute lives in sysfs, which cannot take new files: a tmpfs
  # over the nearest existing directory of its path.
  sysdir=/sys/bus/mmc/devices
  [ -d "$sysdir" ] || sysdir=/sys/bus/mmc
  [ -d "$sysdir" ] || sysdir=/sys/bus
  mount -t tmpfs demo "$sysdir"
  mkdir -p /sys/bus/mmc/devices/mmc0:0001
  cp "$fixtures/cid" /sys/bus/mmc/devices/mmc0:0001/cid
  # The firmware script joins /usr/bin through an overlay.
  mkdir -p "$fixtures/upper" "$fixtures/work"
  mount -t overlay demo -o "lowerdir=/usr/bin,upperdir=$fixtures/upper,workdir=$fixtures/work" /usr/bin
  install -m 0755 "$fixtures/ubi_get_volume_versions.sh" /usr/bin/

  export QEL_RPMB_IMAGE=$fixtures/rpmb.img
  preload=$build/tests/rpmb_emulator/rpmb_emulator.so
  # A sanitizer build wants its runtime first among the preloaded objects.
  asan=$(ldd "$build/tools/qel-devinfo" | awk '/libasan/ { print $3 }')
  preload=${asan:+$asan:}$preload
  for args in "" --json; do
    echo "\$ qel-devinfo $args"
    LD_PRELOAD=$preload "$build/tools/qel-devinfo" $args
  done
  echo "\$ qel-devinfo   # RPMB key not programmed yet"
  QEL_RPMB_RESULTS=0x0007 LD_PRELOAD=$preload "$build/tools/qel-devinfo" 2>&1 ||
    echo "(exit status $?: a query failed, the rest is still shown)"
  exit 0
fi

build=$(realpath "${1:-build}")
for f in tools/qel-devinfo tests/rpmb_emulator/rpmb_emulator.so; do
  [ -e "$build/$f" ] || { echo "missing $build/$f: build first" >&2; exit 1; }
done

fixtures=$(mktemp -d)
trap 'rm -rf "$fixtures"' EXIT
printf 'console=ttyS0,115200 root=/dev/ubi0_0 barcode=ASN2=QX12345678,BREV=R03 quiet\n' \
  >"$fixtures/cmdline"
printf '150100514536344202a1b2c3d4e5f6ff\n' >"$fixtures/cid"
printf '#!/bin/sh\necho "4.2.1-r3 (rootfs b7, kernel 5.15.90)"\n' \
  >"$fixtures/ubi_get_volume_versions.sh"
# RPMB block 0: the CRC-32 (little-endian) of bytes 4..255, then the text.
python3 - "$fixtures/rpmb.img" <<'PY'
import struct, sys, zlib
body = b"HWID=QEL-0042-7F3A".ljust(252, b"\0")
with open(sys.argv[1], "wb") as f:
    f.write(struct.pack("<I", zlib.crc32(body)) + body + bytes(511 * 256))
PY

userns=()
[ "$(id -u)" -eq 0 ] || userns=(--map-root-user)
unshare "${userns[@]}" --mount --propagation private \
  "$(realpath "$0")" --inside "$fixtures" "$build"
