# Sourced by scripts/armhf-vm.sh: the boot images of the armhf test machine,
# made from Debian's packages without installing any of them here (an armhf
# package on the build machine breaks qemu-user programs). A private apt
# configuration per release resolves and downloads them, dpkg-deb unpacks
# them into a root that becomes an ext4 disk, and a busybox initramfs loads
# the modules that reach that disk and the shared source tree. The kernel is
# always Debian 12's; the user land is Debian 12's (bookworm) or, for runs
# past 2038, Debian 13's (trixie), whose armhf programs have a 64-bit time_t:
# Debian 12's cannot even stat a file written after January 2038.

# What the suite drives on the device, and what runs it: ctest (cmake), the
# peers and tools the tests call, kmod for the kernel's module requests.
vm_packages=(
  busybox-static bash dash coreutils util-linux mount procps findutils grep
  sed mawk diffutils kmod base-files base-passwd libc-bin
  cmake python3 iproute2 dpkg mmc-utils i2c-tools libubootenv-tool
  zlib1g zlib1g-dev
)
# Loaded by the initramfs, in this order with what each needs: the virtio
# transport, the root disk and the 9p share of the source tree.
vm_boot_modules=(virtio_mmio virtio_blk crc32c_generic ext4 9pnet_virtio 9p)

# vm_apt ARGUMENT...: apt-get (or apt-cache, with VM_APT=apt-cache) on the
# private configuration of release $vm_release in $vm_cache/apt-RELEASE:
# armhf (and the build machine's architecture for the kernel's build
# tools), nothing installed.
vm_apt() {
  APT_CONFIG=$vm_cache/apt-$vm_release/apt.conf "${VM_APT:-apt-get}" -q "$@"
}

# vm_apt_setup RELEASE: that release's private configuration and lists.
vm_apt_setup() {
  local vm_release=$1 keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  local a=$vm_cache/apt-$1
  mkdir -p "$a/lists/partial" "$a/cache/archives/partial" "$a/etc"
  : > "$a/status"
  cat > "$a/etc/sources.list" <<EOF
deb [signed-by=$keyring] http://deb.debian.org/debian $1 main
deb [signed-by=$keyring] http://deb.debian.org/debian $1-updates main
deb [signed-by=$keyring] http://deb.debian.org/debian-security $1-security main
EOF
  # The downloads stay in root's own cache, where apt's unprivileged user
  # may not write.
  cat > "$a/apt.conf" <<EOF
APT::Architecture "armhf";
APT::Architectures { "armhf"; "$(dpkg --print-architecture)"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Acquire::Languages "none";
Dir::State "$a";
Dir::State::status "$a/status";
Dir::Cache "$a/cache";
Dir::Etc::sourcelist "$a/etc/sources.list";
Dir::Etc::sourceparts "$a/etc";
Dir::Etc::preferences "$a/etc/preferences";
Dir::Etc::preferencesparts "$a/etc";
EOF
  # One mirror in the middle of a sync leaves the others' lists usable.
  step "updating the armhf package lists of $1" vm_apt update ||
    note "some armhf package lists could not be updated; going on with those at hand"
  # A mirror whose index no longer matches its signed Release (a proxy that
  # serves an older copy, seen here) leaves the release without packages:
  # its main index is then taken as served, and said so. Each package is
  # still checked against that index.
  local list=$a/lists/deb.debian.org_debian_dists_$1_main_binary-armhf_Packages
  if [ ! -e "$a/lists/deb.debian.org_debian_dists_$1_InRelease" ]; then
    note "the $1 armhf index does not match its signed Release: taking it as the mirror serves it"
    curl -fsS "http://deb.debian.org/debian/dists/$1/main/binary-armhf/Packages.xz" |
      xz -d > "$list"
    echo 'APT::Get::AllowUnauthenticated "true";' >> "$a/apt.conf"
  fi
}

# vm_download DIR PACKAGE...: the packages and all they depend on, as an
# empty system would install them, downloaded into DIR.
vm_download() {
  local dir=$1 wanted
  shift
  wanted=$(vm_apt -s install "$@" | awk '/^Inst /{ print $2 "=" substr($3, 2) }')
  [ -n "$wanted" ] || { echo "armhf-vm: no packages resolved" >&2; return 1; }
  # shellcheck disable=SC2086  # one word per package
  vm_download_only "$dir" $wanted
}

# vm_unpack DEB ROOT: the package's files, through the merged /usr's links.
vm_unpack() {
  dpkg-deb --fsys-tarfile "$1" | tar -x --keep-directory-symlink -C "$2"
}

# vm_relative_links ROOT: absolute links made relative, so that the root
# also serves as the build's staging root (zlib for the CRC-32 test).
vm_relative_links() {
  local root=$1 link target
  while IFS= read -r link; do
    target=$(readlink "$link")
    ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$root$target")" \
      "$link"
  done < <(find "$root" -type l -lname '/*')
}

# vm_module_order ROOT KVER MODULE...: the modules' files, each after those
# it needs, from the kernel's modules.dep.
vm_module_order() {
  local root=$1 kver=$2
  shift 2
  awk -v wanted="$*" '
    { sub(/:$/, "", $1); deps[$1] = ""; for (i = 2; i <= NF; ++i) deps[$1] = deps[$1] " " $i
      name = $1; sub(/.*\//, "", name); sub(/\.ko.*/, "", name); gsub(/-/, "_", name)
      path[name] = $1 }
    function load(file,   n, d, i) {
      if (file in done) return; done[file] = 1
      n = split(deps[file], d, " ")
      for (i = n; i >= 1; --i) load(d[i])
      print file }
    END { n = split(wanted, w, " ")
          for (i = 1; i <= n; ++i) {
            if (!(w[i] in path)) { print "missing module " w[i] > "/dev/stderr"; exit 1 }
            load(path[w[i]]) } }' "$root/lib/modules/$kver/modules.dep"
}

# vm_initramfs ROOT KVER OUT: busybox, the boot modules and /init.
vm_initramfs() {
  local root=$1 kver=$2 out=$3 dir module
  dir=$(mktemp -d)
  mkdir -p "$dir"/{bin,dev,proc,sys,newroot,modules}
  cp "$root/bin/busybox" "$dir/bin/busybox" || return
  for applet in sh mount umount insmod switch_root mkdir sleep cat sed poweroff; do
    ln -s busybox "$dir/bin/$applet"
  done
  while read -r module; do
    cp "$root/lib/modules/$kver/$module" "$dir/modules/"
    basename "$module" >> "$dir/modules/order"
  done < <(vm_module_order "$root" "$kver" "${vm_boot_modules[@]}")
  # The kernel's command line names the shared tree (qel.src) and the script
  # that runs in it (qel.run, with its arguments in qel.args, commas for
  # blanks).
  cat > "$dir/init" <<'EOF'
#!/bin/sh
mount -t proc proc /proc
mount -t devtmpfs dev /dev
for m in $(cat /modules/order); do insmod /modules/$m; done
for word in $(cat /proc/cmdline); do
  case $word in qel.*=*) name=${word%%=*}; eval "${name#qel.}=\${word#*=}" ;; esac
done
fail() { echo "armhf-vm init: $*"; poweroff -f; }
for _ in 1 2 3 4 5 6 7 8 9 10; do [ -b /dev/vda ] && break; sleep 0.5; done
mount -t ext4 /dev/vda /newroot || fail "no root disk"
mkdir -p "/newroot$src"
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144 qelsrc "/newroot$src" ||
  fail "no shared tree"
umount /proc
exec switch_root /newroot /bin/bash "$src/$run" $(echo "$args" | sed 's/,/ /g')
EOF
  chmod +x "$dir/init"
  (cd "$dir" && find . | cpio -o -H newc --quiet) > "$out"
  rm -rf "$dir"
}

# vm_i2c_stub ROOT KVER DIR: Debian's armmp kernel leaves out i2c-stub, an
# SMBus-only adapter with chips in memory; it is built out of tree from the
# kernel's source and the armhf headers (the build machine's kbuild tools,
# the armhf cross compiler) and installed into ROOT beside the others.
vm_i2c_stub() {
  local root=$1 kver=$2 dir=$3 common headers series deb
  common=linux-headers-${kver%-*}-common
  series=$(echo "$kver" | cut -d. -f1,2)
  vm_download_only "$dir/debs" "linux-headers-$kver" "$common" \
    "linux-kbuild-$series:$(dpkg --print-architecture)" "linux-source-$series"
  mkdir -p "$dir/tree" "$dir/module"
  for deb in "$dir"/debs/linux-{headers,kbuild}-*.deb; do dpkg-deb -x "$deb" "$dir/tree"; done
  headers=$dir/tree/usr/src/linux-headers-$kver
  # Its Makefile names the common part by its installed path.
  echo "include $dir/tree/usr/src/$common/Makefile" > "$headers/Makefile"
  dpkg-deb --fsys-tarfile "$dir"/debs/linux-source-*.deb |
    tar -xO "./usr/src/linux-source-$series.tar.xz" |
    tar -xJO "linux-source-$series/drivers/i2c/i2c-stub.c" > "$dir/module/i2c-stub.c"
  echo 'obj-m := i2c-stub.o' > "$dir/module/Kbuild"
  make -C "$headers" M="$dir/module" ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf- \
    -j "$(nproc)" modules
  install -D -m 644 "$dir/module/i2c-stub.ko" "$root/lib/modules/$kver/extra/i2c-stub.ko"
}

# vm_download_only DIR PACKAGE...: just these packages, downloaded into DIR.
vm_download_only() {
  local dir=$1
  shift
  mkdir -p "$dir"
  (cd "$dir" && vm_apt download "$@")
}

# vm_build_image DIR RELEASE: kernel, initramfs and root disk of the test
# machine, its user land from RELEASE. Needs bookworm's lists and RELEASE's.
vm_build_image() {
  local dir=$1 kver deb root=$1/root modules vm_release=bookworm
  kver=$(VM_APT=apt-cache vm_apt depends linux-image-armmp |
           sed -n 's/.*Depends: linux-image-\(.*\)/\1/p' | head -n 1)
  [ -n "$kver" ] || { echo "armhf-vm: no armmp kernel in the lists" >&2; return 1; }
  # The caller's step runs this without errexit: each part that can fail
  # ends the build.
  vm_download_only "$dir/debs" "linux-image-$kver" || return
  vm_release=$2 vm_download "$dir/debs" "${vm_packages[@]}" || return
  mkdir -p "$root/usr"/{bin,sbin,lib}
  ln -s usr/bin "$root/bin"
  ln -s usr/sbin "$root/sbin"
  ln -s usr/lib "$root/lib"
  for deb in "$dir"/debs/*.deb; do vm_unpack "$deb" "$root"; done
  vm_relative_links "$root"
  # What maintainer scripts would have made: users, names, the shell and
  # awk, /var/run and /var/lock in /run (where the tests' sandboxes give
  # each test its own, so that tests running side by side never share a
  # pid file).
  cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
  cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
  echo device > "$root/etc/hostname"
  printf '127.0.0.1 localhost\n::1 localhost\n' > "$root/etc/hosts"
  ln -sfn dash "$root/usr/bin/sh"
  ln -sfn mawk "$root/usr/bin/awk"
  mkdir -p "$root"/{proc,sys,dev,run,tmp,mnt,home/root,var,usr/local/sbin}
  rm -rf "$root/var/run" "$root/var/lock"
  ln -s /run "$root/var/run"
  ln -s /run/lock "$root/var/lock"
  # ctest lists the tests through the build machine's cmake modules, named
  # by their versioned path.
  modules=$(cd "$root/usr/share" && ls -d cmake-3.*)
  [ -e "$root/usr/share/cmake-3.25" ] || ln -s "$modules" "$root/usr/share/cmake-3.25"
  vm_i2c_stub "$root" "$kver" "$dir/i2c-stub" || return
  arm-linux-gnueabihf-gcc -std=c11 -Wall -Wextra -O2 -D_TIME_BITS=64 \
    -D_FILE_OFFSET_BITS=64 -o "$root/usr/local/sbin/armhf-vm-clock" \
    "$(dirname "${BASH_SOURCE[0]}")/armhf-vm-clock.c"
  depmod -b "$root" "$kver"
  cp "$root/boot/vmlinuz-$kver" "$dir/vmlinuz"
  vm_initramfs "$root" "$kver" "$dir/initramfs.cpio" || return
  # 256-byte inodes keep file times past 2038.
  mke2fs -q -F -t ext4 -I 256 -L device -d "$root" "$dir/root.ext4" 1G
  echo "$kver" > "$dir/kernel-version"
  rm -rf "$dir/debs" "$dir/i2c-stub"
}
