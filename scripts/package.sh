#!/bin/bash
# Builds the Debian source package (debian/) and its binary packages with
# dpkg-buildpackage:
#   scripts/package.sh          for the build machine, into build-pkg/
#   scripts/package.sh armhf    cross for the device (nocheck), into
#                               build-pkg-armhf/; the architecture-dependent
#                               packages only: libqel-util-doc (all) comes
#                               from the build machine's build
# and prints the paths of the .deb files. Installs the build dependencies
# first (as root, or through sudo); the armhf build runs in a throw-away
# root (scripts/lib/throwaway-root.sh) that also holds the target's runtime.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD
. scripts/lib/multiarch.sh
. scripts/lib/progress.sh
arch=${1:-$(dpkg --print-architecture)}
if [ "$arch" = "$(dpkg --print-architecture)" ]; then
  out=$source_dir/build-pkg; cross=(); arch_only=()
else
  out=$source_dir/build-pkg-$arch; cross=(-a"$arch" -Pnocheck); arch_only=(-B)
fi

sudo=${as_root[*]}
# A foreign architecture needs its package lists before anything of it
# installs, also when an earlier update of them failed.
if [ ${#cross[@]} -gt 0 ]; then
  dpkg --print-foreign-architectures | grep -qx "$arch" ||
    $sudo dpkg --add-architecture "$arch"
  [ -n "$(offered_versions libc6 "$arch")" ] || update_lists
fi
# dpkg-dev, debhelper and the cross tool chain, then Build-Depends for the
# host architecture (all of them run on the build machine); a binary-arch
# build leaves out Build-Depends-Indep (doxygen).
tools=(dpkg-dev debhelper)
[ ${#cross[@]} -eq 0 ] || tools+=("crossbuild-essential-$arch")
quiet_install "${tools[@]}"
# A cross build takes its build dependencies in the throw-away root below:
# the target's libraries among them (libdw-dev) pull the target's C
# library, which stays off this machine.
if [ ${#cross[@]} -eq 0 ]; then
  step "installing the build dependencies" $sudo apt-get build-dep -y ./
fi

# The package is built in a copy of the tree, so that dpkg-buildpackage
# finds no earlier build output and leaves its results (written next to
# the source directory) inside build-pkg*/.
rm -rf "$out"
work=$out/src/libqel-util
mkdir -p "$work"
tar -C "$source_dir" --exclude=./.git --exclude='./build*' \
  --exclude='./obj-*' -cf - . | tar -C "$work" -xf -
build=(dpkg-buildpackage -us -uc -j2 "${cross[@]}" "${arch_only[@]}")
if [ ${#cross[@]} -eq 0 ]; then
  (cd "$work" && "${build[@]}") >"$out/build.log" 2>&1 || status=$?
else
  # dpkg-shlibdeps takes the dependencies of cross-built programs from the
  # target's C and C++ runtime packages. Installed on this machine, their
  # loader directories would also hand that C library to programs that the
  # emulator runs with the cross tool chain's loader (scripts/armhf.sh), and
  # the two do not mix: they go into a throw-away root for the build.
  base=$(mktemp -d "${TMPDIR:-/tmp}/qel-root.XXXXXX")
  trap 'rmdir "$base"' EXIT
  runtime=()
  for package in libc6 libgcc-s1 gcc-12-base libstdc++6; do
    mapfile -t -O ${#runtime[@]} runtime < \
      <(same_version "$package" "$(dpkg --print-architecture)" "$arch")
  done
  # The build runs in the root, in the copy of the tree (bound from here).
  $sudo env base="$base" source_dir="$source_dir" work="$work" \
    runtime="${runtime[*]}" build="${build[*]}" cross="${cross[*]}" \
    native="$(dpkg --print-architecture)" arch="$arch" \
    unshare --mount --propagation private bash -euo pipefail -c '
      . scripts/lib/throwaway-root.sh
      . scripts/lib/multiarch.sh
      make_root "$base" "$source_dir"
      read -r -a packages <<< "$runtime"
      in_root apt-get install -y -qq --no-install-recommends \
        --allow-downgrades "${packages[@]}" >/dev/null
      build_dep() { in_root bash -c "cd $work && apt-get build-dep --arch-only $cross $* ./"; }
      # The target build dependencies pull more Multi-Arch: same packages
      # (C library headers, liblzma, libssl); one that apt cannot match to
      # this machine'"'"'s version goes in first at the newest version
      # offered for both.
      for _ in 1 2 3 4 5 6; do
        unmet=$(build_dep -s 2>&1 | sed -n "s/.*Depends: \([^ :]*\):$arch .*not going to be installed.*/\1/p" | sort -u || true)
        [ -n "$unmet" ] || break
        pins=()
        for package in $unmet; do
          mapfile -t -O ${#pins[@]} pins < <(same_version "$package" "$native" "$arch")
        done
        in_root apt-get install -y -qq --no-install-recommends \
          --allow-downgrades "${pins[@]}" >/dev/null
      done
      build_dep -y -qq >/dev/null
      in_root bash -c "cd $work && $build"' >"$out/build.log" 2>&1 ||
    status=$?
fi
[ "${status:-0}" -eq 0 ] ||
  { tail -n 60 "$out/build.log" >&2; echo "package: dpkg-buildpackage failed (log: $out/build.log)" >&2; exit 1; }
find "$out/src" -maxdepth 1 -type f -exec mv -t "$out" {} +
rm -rf "$out/src"
ls "$out"/*.deb
