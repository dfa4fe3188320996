# Sourced by the packaging scripts: a throw-away root in which packages are
# installed without touching this machine. It is this machine as it is,
# seen through an overlay whose writes stay in memory; only the source tree
# is shared, bound at its own path, so what is built there stays. Call
# make_root inside a private mount namespace (unshare --mount): the root
# ends with it. Another way of making a fresh root can take its place as
# long as it keeps these two functions.

# make_root BASE SOURCE_DIR: makes the root below the empty folder BASE and
# sets $root.
make_root() {
  local base=$1
  mount -t tmpfs tmpfs "$base"
  mkdir "$base"/{upper,work,root}
  mount -t overlay overlay \
    -o "lowerdir=/,upperdir=$base/upper,workdir=$base/work" "$base/root"
  root=$base/root
  mount -t proc proc "$root/proc"
  # qel-devsim lays its device files over /sys with an overlay, which the
  # kernel refuses (EINVAL) on the root's own empty folder there.
  mount -t sysfs sysfs "$root/sys"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs tmpfs "$root/tmp"
  mkdir -p "$root$2"
  mount --bind "$2" "$root$2"
}

# in_root COMMAND...: runs COMMAND in the root with a clean environment.
in_root() {
  chroot "$root" env -i \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
