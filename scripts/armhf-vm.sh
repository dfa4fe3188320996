#!/bin/bash
# Runs the whole armhf suite as root on Debian 12's 32-bit ARM kernel
# (linux-image-armmp) under qemu-system-arm (TCG, no network), twice: with
# today's clock and Debian 12's user land, and with the clock on 15 June
# 2040, past the 32-bit time_t, and Debian 13's user land (64-bit time_t),
# where a crash dump's header must carry that date. The suite is built for
# that machine in build-armhf-vm without a cross emulator, so its helper
# programs are ARM programs started by the ARM kernel. The boot images come
# from Debian's armhf packages, none installed here, and are kept in
# /var/cache/qel-util-ci (QEL_VM_CACHE) until their recipe changes. Ends
# with each run's summary: tests run, passed, skipped (with why) and failed.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
source scripts/lib/test-summary.sh
source scripts/lib/armhf-vm-image.sh
bash scripts/install-deps.sh
quiet_install qemu-system-arm e2fsprogs cpio kmod curl xz-utils ccache

# The images: one directory per release and recipe (the files that make
# it), made aside and renamed into place, so that an interrupted build is
# never reused.
key=$(cat scripts/lib/armhf-vm-image.sh scripts/lib/armhf-vm-clock.c |
        sha256sum | cut -c1-16)
ci_cache=${QEL_VM_CACHE:-/var/cache/qel-util-ci}
vm_cache=$ci_cache/armhf-vm
declare -A image
for release in bookworm trixie; do
  image[$release]=$vm_cache/image-$release-$key
  [ -s "${image[$release]}/root.ext4" ] && continue
  mkdir -p "$vm_cache"
  rm -rf "$vm_cache/image-$release"-*
  vm_apt_setup bookworm
  [ "$release" = bookworm ] || vm_apt_setup "$release"
  step "making the armhf boot image with $release's user land (Debian packages, no install)" \
    vm_build_image "${image[$release]}.partial" "$release"
  mv "${image[$release]}.partial" "${image[$release]}"
done
note "boot images: ${image[*]} (kernel $(cat "${image[bookworm]}/kernel-version"))"

# Built like scripts/armhf.sh, but with no emulator: the machine runs it.
# Debian 12's root stages zlib for the CRC-32 comparison, found again in
# each new image. A warm machine compiles little: ccache keeps the objects
# beside the images, whatever folder the tree was cloned into.
export CCACHE_DIR=$ci_cache/ccache CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
dir=build-armhf-vm
wide='-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64'
step "configuring the armhf suite for the ARM kernel" \
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS="$wide" -DCMAKE_CXX_FLAGS="$wide" \
    -DQEL_UTIL_GTEST_FROM_SOURCE=/usr/src/googletest \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCMAKE_CROSSCOMPILING_EMULATOR= -DCMAKE_FIND_ROOT_PATH="${image[bookworm]}/root" \
    -U 'ZLIB_*'
step "building the armhf suite" cmake --build "$dir" -j "$(nproc)"

# Not run there, and why: the machine has no compiler.
declare -A excluded=(
  [Consumer.FromInstallTree]="builds a program against the install tree: the image has no compiler (scripts/armhf.sh runs it under qemu-user)"
)
exclude=$(IFS='|'; echo "${!excluded[*]}")

# vm_run LABEL RELEASE RTC [crash]: boots the machine on RELEASE's image (its
# disk's writes thrown away) with the source tree shared at its own path, runs the suite
# and prints the summary; fails when the suite failed.
vm_run() {
  local label=$1 disk=${image[$2]} rtc=$3 console=$dir/vm-$1-console.log status
  rm -f "$dir/vm-status" "$dir/vm-dump.txt"
  note "booting the armhf machine ($label run, $2's user land)"
  timeout 1200 qemu-system-arm -M virt,highmem=off -cpu cortex-a15 \
    -smp "$(nproc)" -m 1536 -accel tcg -nographic -monitor none \
    -serial "file:$console" -nic none -no-reboot -rtc "base=$rtc" \
    -kernel "$disk/vmlinuz" -initrd "$disk/initramfs.cpio" \
    -append "console=ttyAMA0 panic=-1 loglevel=3 qel.src=$PWD qel.run=scripts/lib/armhf-vm-guest.sh qel.args=$dir,$exclude${4:+,$4}" \
    -drive "if=none,id=root,format=raw,snapshot=on,file=$disk/root.ext4" \
    -device virtio-blk-device,drive=root \
    -fsdev "local,id=src,path=$PWD,security_model=none" \
    -device virtio-9p-device,fsdev=src,mount_tag=qelsrc </dev/null || true
  sed -n '/^armhf-vm: /p; /^The following tests FAILED/,$p' "$console"
  status=$(cat "$dir/vm-status" 2>/dev/null || echo "none (see $console)")
  for name in "${!excluded[@]}"; do
    echo "armhf-vm $label: not run $name: ${excluded[$name]}"
  done
  test_summary "armhf-vm $label" "$dir/Testing/Temporary/LastTest.log"
  cp "$dir/Testing/Temporary/LastTest.log" "$dir/vm-$label-LastTest.log"
  [ "$status" = 0 ] || { echo "armhf-vm $label: the suite failed: $status" >&2; return 1; }
}

# Both runs, whatever the first gives, so that CI shows both summaries.
status=0
vm_run now bookworm utc || status=1
# The library's clock reads are 64-bit: the dump's header gives the true
# date ("Jun 15"), where 32 bits would have wrapped to 1904.
vm_run 2040 trixie 2040-06-15T09:30:00 crash || status=1
header=$(head -n 1 "$dir/vm-dump.txt" 2>/dev/null || true)
echo "armhf-vm 2040: crash dump header: $header"
case $header in
  *"(Jun 15 "*) ;;
  *) echo "armhf-vm 2040: the dump's header does not show 15 June" >&2; status=1 ;;
esac
exit "$status"
