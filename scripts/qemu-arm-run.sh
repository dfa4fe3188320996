#!/bin/sh
# Runs an armhf program on the build machine under qemu-user, with the cross
# C library as the guest's root. An LD_PRELOAD meant for the program (an
# emulator of a device node) would be loaded into qemu itself; it goes to
# the guest's environment instead. The kernel cannot start another armhf
# program for the guest, so QEL_EMULATOR tells the tests how to.
set -e
QEL_EMULATOR=${QEL_EMULATOR:-$(cd "$(dirname "$0")" && pwd)/$(basename "$0")}
export QEL_EMULATOR
if [ -n "${LD_PRELOAD:-}" ]; then
  QEMU_SET_ENV="LD_PRELOAD=${LD_PRELOAD}${QEMU_SET_ENV:+,$QEMU_SET_ENV}"
  export QEMU_SET_ENV
  unset LD_PRELOAD
fi
# The guest's loader comes from the root, so its C library must as well: a
# multiarch libc6:armhf of the build machine, which the loader's cache would
# find first, is another build of glibc and breaks fork.
root=${QEL_ARMHF_SYSROOT:-/usr/arm-linux-gnueabihf}
QEMU_SET_ENV="LD_LIBRARY_PATH=${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}$root/lib${QEMU_SET_ENV:+,$QEMU_SET_ENV}"
export QEMU_SET_ENV
exec qemu-arm -L "$root" "$@"
