#!/bin/bash
# Runs qel-devinfo on a made-up device: qel-devsim gives it a kernel command
# line with a barcode, an eMMC CID, a firmware version script and an RPMB
# partition whose block 0 holds a hardware-ID record. Nothing on the host is
# changed. With the armhf build of scripts/armhf.sh beside this one, the
# armhf qel-devinfo runs under qemu-user on the same device.
#
# usage: scripts/devinfo-demo.sh [build-dir]   (default: build)
set -euo pipefail

build=$(realpath "${1:-build}")
for f in tools/qel-devinfo tools/devsim/qel-devsim; do
  [ -e "$build/$f" ] || { echo "missing $build/$f: build first" >&2; exit 1; }
done
devsim=$build/tools/devsim/qel-devsim
device=(--hwid QEL-0042-7F3A --serial 02a1b2c3d4e5
        --barcode 'ASN2=QX12345678,BREV=R03'
        --fw-version '4.2.1-r3 (rootfs b7, kernel 5.15.90)')

show() { echo "\$ qel-devsim $*"; "$devsim" "$@" 2>&1 || echo "(exit status $?)"; }
show "${device[@]}" -- "$build/tools/qel-devinfo"
show "${device[@]}" -- "$build/tools/qel-devinfo" --json
echo "# RPMB key not programmed yet, NOHWID on the kernel command line:"
show --rpmb-result 7 --nohwid -- "$build/tools/qel-devinfo"

armhf=$(dirname "$build")/build-armhf/tools/qel-devinfo
if [ -x "$armhf" ] && command -v qemu-arm >/dev/null; then
  echo "# The armhf build of qel-devinfo, under qemu-user on the same device:"
  show "${device[@]}" -- "$armhf"
else
  echo "# (bash scripts/armhf.sh builds the armhf qel-devinfo; qel-devsim then"
  echo "#  runs it under qemu-user on the same device)"
fi
