# Sourced by the packaging scripts: a throw-away root in which packages are
# installed without touching this machine. It is this machine as it is,
# seen through an overlay whose writes stay in memory; only the source tree
# is shared, bound at its own path, so what is built there stays. Call
# make_root inside a private mount namespace (unshare --mount): the root
# ends with it. Another way of making a fresh root can take its place as
# long as it keeps these two functions.

# mount_system_dirs ROOT: the kernel's file systems, /dev and an empty /tmp
# and /run in ROOT, as a booted machine has them. Namespaces, overlays (also
# qel-devsim's over /sys, which the kernel refuses on an empty folder) and
# bridges need them.
mount_system_dirs() {
  mount -t proc proc "$1/proc"
  mount -t sysfs sysfs "$1/sys"
  mount --rbind /dev "$1/dev"
  mount --make-rslave "$1/dev"
  mount -t tmpfs tmpfs "$1/tmp"
  mount -t tmpfs tmpfs "$1/run"
}

# make_root BASE SOURCE_DIR: makes the root below the empty folder BASE and
# sets $root.
make_root() {
  local base=$1
  mount -t tmpfs tmpfs "$base"
  mkdir "$base"/{upper,work,root}
  mount -t overlay overlay \
    -o "lowerdir=/,upperdir=$base/upper,workdir=$base/work" "$base/root"
  root=$base/root
  mount_system_dirs "$root"
  mkdir -p "$root$2"
  mount --bind "$2" "$root$2"
}

# in_root COMMAND...: runs COMMAND in the root with a clean environment.
in_root() {
  chroot "$root" env -i \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
