#!/bin/bash
# The first process of the armhf test machine (scripts/armhf-vm.sh): mounts
# what a Debian system has, runs the armhf suite of BUILD_DIR (relative to
# the shared source tree) as root with ctest, but for the tests that
# EXCLUDE (a ctest regular expression) matches, leaves its status in
# BUILD_DIR/vm-status and powers the machine off. With "crash", a daemon
# then faults, and its dump goes to BUILD_DIR/vm-dump.txt.
#   armhf-vm-guest.sh BUILD_DIR EXCLUDE [crash]
build=$1 exclude=$2
src=$(cd "$(dirname "$0")/../.." && pwd)
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/root LANG=C.UTF-8

mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev 2>/dev/null
mkdir -p /dev/pts /dev/shm /root
# What udev would add: bash's process substitution needs /dev/fd.
ln -sfn /proc/self/fd /dev/fd
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
mkdir /run/lock
mount -t tmpfs tmpfs /tmp
mount -t cgroup2 cgroup2 /sys/fs/cgroup 2>/dev/null
ldconfig
echo device > /proc/sys/kernel/hostname
ip link set lo up
# The I2C tests' real adapter: an SMBus-only i2c-stub bus with two chips,
# under i2c-dev, and a driver that can claim one of them.
modprobe i2c-dev
modprobe i2c-stub chip_addr=0x50,0x51
modprobe at24

# The system clock from the RTC, also past 2038.
echo "armhf-vm: $(uname -srm), $(nproc) processors, clock $(armhf-vm-clock 2>&1)"
status=0
if cd "$src/$build"; then
  ctest -j "$(nproc)" --output-on-failure -E "$exclude" || status=$?
else
  status=1
fi

if [ "${3:-}" = crash ]; then
  mkdir -p /home/root/log /mnt
  : > /mnt/crash
  rm -f /home/root/log/qel_test_daemon_dump.txt
  # The program name, from its first argument, names the dump file.
  (exec -a qel_test_daemon tests/daemon_helper/qel_test_daemon \
     pidfile=/run/qel_test_daemon.pid foreground daemonize segv run)
  cp /home/root/log/qel_test_daemon_dump.txt vm-dump.txt || status=1
fi
echo "$status" > vm-status
sync
echo o > /proc/sysrq-trigger
sleep 60
