#!/bin/bash
# What the Yocto layer (yocto/meta-qel-util) relies on:
#   - with checkouts of BitBake, openembedded-core and meta-openembedded of a
#     release in $QEL_YOCTO_CACHE/<release>/{bitbake,openembedded-core,
#     meta-openembedded} (default /var/cache/qel-util-ci/yocto), the real
#     BitBake of that release, run offline as an unprivileged user with
#     MACHINE = "qemuarm", parses the layers (`bitbake -p`), expands the
#     recipe built from this checkout through a local .bbappend (`bitbake -e
#     libqel-util`), both without an error or a warning, and
#     `yocto-check-layer` passes for the layer (with QEL_YOCTO_CHECK_LAYER=1,
#     or remembered from such a run); without the checkouts it says so;
#   - the project configures, builds and installs with the options and
#     flags OpenEmbedded's cmake class gives for qemuarm (Ninja,
#     CMAKE_SYSROOT, 64-bit time, OpenEmbedded's prefix maps), taken from
#     the newest release checked or, without one, as wrynose gives them;
#     Debian's cross compiler stands in for OpenEmbedded's;
#   - every staged file lands in the package the recipe's FILES give it;
#   - the build is reproducible: a second copy of the tree, in another
#     folder and built in another folder, gives the same stripped library;
#     its debug information names the sources where the -src package puts
#     them;
#   - the suite, installed as the ptest package installs it, passes through
#     the layer's run-ptest, as root.
#   scripts/yocto-check.sh [RELEASE...]   (default: every release cached)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
bash scripts/install-deps.sh
# Ninja for the build; the rest are host tools BitBake's sanity check asks
# for (HOSTTOOLS) and the locale it runs in.
quiet_install ninja-build chrpath cpio diffstat gawk lz4 zstd file locales git
source_dir=$PWD
layer=yocto/meta-qel-util
recipe=$layer/recipes-support/libqel-util/libqel-util_1.0.0.bb
cache=${QEL_YOCTO_CACHE:-/var/cache/qel-util-ci/yocto}
start=$SECONDS
scratch=$(mktemp -d "${TMPDIR:-/tmp}/qel-yocto.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

fail() { echo "yocto-check: $*" >&2; exit 1; }

# The recipe's LICENSE checksum is the licence's.
grep -q "file://LICENSE;md5=$(md5sum < LICENSE | cut -d' ' -f1)\"" "$recipe" ||
  fail "LIC_FILES_CHKSUM does not match LICENSE"
# SRCREV names a commit of this project (the tagged release).
srcrev=$(sed -n 's/^SRCREV = "\([0-9a-f]\{40\}\)"$/\1/p' "$recipe")
[ -n "$srcrev" ] || fail "no SRCREV pinned in $recipe"
if git rev-parse --git-dir >/dev/null 2>&1 &&
   [ "$(git rev-parse --is-shallow-repository)" = false ]; then
  git cat-file -e "$srcrev^{commit}" 2>/dev/null ||
    fail "SRCREV $srcrev is no commit of this project"
  tag=v$(sed -n 's/^project(qel_util VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
  ! tagged=$(git rev-parse -q --verify "$tag^{commit}") || [ "$tagged" = "$srcrev" ] ||
    fail "SRCREV $srcrev is not the commit of the tag $tag ($tagged)"
fi

# Copies this tree without its build folders to $1.
copy_tree() {
  mkdir -p "$1"
  tar -C "$source_dir" --exclude=./.git --exclude='./build*' \
    --exclude='./obj-*' -cf - . | tar -C "$1" -xf -
}

# ---------------------------------------------------------------------------
# The real BitBake, one release at a time.

# BitBake runs as "nobody", in a mount namespace whose /dev/null anyone may
# write (whatever the machine's is), in the locale it insists on.
bitbake_user=65534
locale_dir=$cache/locale
as_builder() {
  local release=$1 dir=$2
  shift 2
  unshare --mount --propagation private sh -c '
    mount --bind "$1" /dev/null && shift && exec "$@"' sh "$cache/null" \
    setpriv --reuid=$bitbake_user --regid=$bitbake_user --clear-groups \
    env -i HOME="$dir" BUILDDIR="$dir/build" LANG=en_US.UTF-8 \
    LOCPATH="$locale_dir" BB_ENV_PASSTHROUGH_ADDITIONS=LOCPATH \
    PATH="$cache/$release/bitbake/bin:$cache/$release/openembedded-core/scripts:/usr/bin:/bin" \
    sh -c 'cd "$BUILDDIR" && exec "$@"' sh "$@"
}

# Lines of BitBake's output that report a problem; none may appear.
problems_in() { grep -E '^(ERROR|WARNING):' "$1" || true; }

# check_release RELEASE: the three checks; leaves the recipe's environment
# in $scratch/RELEASE.env.
check_release() {
  local release=$1 top=$cache/$1
  local work=$top/work log=$scratch/$1.log t0=$SECONDS
  note "yocto-check: $release: BitBake $(sed -n 's/^__version__ = "\(.*\)"/\1/p' \
    "$top/bitbake/lib/bb/__init__.py"), $(cd "$top/openembedded-core" &&
    sed -n 's/^LAYERSERIES_CORENAMES = "\(.*\)"/openembedded-core \1/p' meta/conf/layer.conf)"
  # The layer and the tree it builds are copied fresh; the build folder (with
  # its parse cache) stays from one run to the next.
  mkdir -p "$work/build/conf"
  rm -rf "$work/layers" "$work/src"
  mkdir -p "$work/layers/meta-qel-util-local/conf" \
           "$work/layers/meta-qel-util-local/recipes-support/libqel-util"
  cp -r "$layer" "$work/layers/"
  copy_tree "$work/src"
  # The working tree's .bbappend, as the layer's README shows it.
  cat > "$work/layers/meta-qel-util-local/recipes-support/libqel-util/libqel-util_%.bbappend" <<EOF
inherit externalsrc
EXTERNALSRC = "$work/src"
EXTERNALSRC_BUILD = "\${WORKDIR}/build"
EOF
  cat > "$work/layers/meta-qel-util-local/conf/layer.conf" <<EOF
BBPATH .= ":\${LAYERDIR}"
BBFILES += "\${LAYERDIR}/recipes-*/*/*.bbappend"
BBFILE_COLLECTIONS += "qel-util-local"
BBFILE_PATTERN_qel-util-local = "^\${LAYERDIR}/"
BBFILE_PRIORITY_qel-util-local = "7"
LAYERDEPENDS_qel-util-local = "qel-util"
LAYERSERIES_COMPAT_qel-util-local = "$release"
EOF
  # Offline; the fetched form of the recipe takes this repository.
  cat > "$work/build/conf/local.conf" <<EOF
MACHINE = "qemuarm"
BB_NO_NETWORK = "1"
CONNECTIVITY_CHECK_URIS = ""
BB_NUMBER_THREADS = "2"
BB_NUMBER_PARSE_THREADS = "2"
QEL_UTIL_GIT_URI = "git://$source_dir;protocol=file"
EOF
  local core=$top/openembedded-core/meta oe=$top/meta-openembedded/meta-oe
  printf 'BBPATH = "${TOPDIR}"\nBBLAYERS = "%s"\n' \
    "$core $oe $work/layers/meta-qel-util $work/layers/meta-qel-util-local" \
    > "$work/build/conf/bblayers.conf"
  chown -R $bitbake_user:$bitbake_user "$work"

  as_builder "$release" "$work" bitbake -p >"$log" 2>&1 ||
    { tail -n 30 "$log" >&2; fail "$release: bitbake -p failed"; }
  [ -z "$(problems_in "$log")" ] ||
    { problems_in "$log" >&2; fail "$release: bitbake -p reported problems"; }
  echo "yocto-check: $release: bitbake -p: parsed cleanly ($(grep -o '[0-9]* targets' "$log" | tail -n 1))"

  as_builder "$release" "$work" bitbake -e libqel-util >"$scratch/$release.env" 2>&1 ||
    { tail -n 30 "$scratch/$release.env" >&2; fail "$release: bitbake -e libqel-util failed"; }
  [ -z "$(problems_in "$scratch/$release.env")" ] ||
    { problems_in "$scratch/$release.env" >&2; fail "$release: bitbake -e reported problems"; }
  grep -qx "S=\"$work/src\"" "$scratch/$release.env" ||
    fail "$release: the .bbappend does not build the working tree"
  local bridge=iproute2-bridge
  [ "$release" != scarthgap ] || bridge=iproute2
  grep -qx "RDEPENDS:libqel-util=\"$bridge\"" "$scratch/$release.env" ||
    fail "$release: libqel-util should depend on $bridge for /sbin/bridge"
  echo "yocto-check: $release: bitbake -e libqel-util: no error or warning, builds $work/src"

  # yocto-check-layer adds the layer (and meta-oe) to a configuration of
  # openembedded-core alone, and takes the recipe in its fetched form. It
  # computes the signatures of every task of the world several times (half
  # an hour on two cores): a pass is remembered for the same layer on the
  # same checkouts.
  local stamp
  stamp=$({ (cd "$layer" && find . -type f -print0 | sort -z | xargs -0 sha256sum)
            find "$top/bitbake" "$top/openembedded-core" "$top/meta-openembedded" \
              -type f -printf '%P %s %T@\n' | sort; } | sha256sum | cut -d' ' -f1)
  if [ "$(cat "$work/check-layer.passed" 2>/dev/null)" = "$stamp" ]; then
    echo "yocto-check: $release: yocto-check-layer passed before for this layer on these checkouts; not run again"
    echo "yocto-check: $release: all BitBake checks passed in $((SECONDS - t0)) s"
    return
  fi
  # Its forty minutes a release would take CI past its budget: asked for.
  if [ "${QEL_YOCTO_CHECK_LAYER:-0}" != 1 ]; then
    echo "yocto-check: $release: yocto-check-layer NOT run (about 40 minutes" \
         "a release on two cores); QEL_YOCTO_CHECK_LAYER=1 runs it"
    echo "yocto-check: $release: bitbake -p and -e passed in $((SECONDS - t0)) s"
    return
  fi
  printf 'BBPATH = "${TOPDIR}"\nBBLAYERS = "%s"\n' "$core" \
    > "$work/build/conf/bblayers.conf"
  chown $bitbake_user:$bitbake_user "$work/build/conf/bblayers.conf"
  as_builder "$release" "$work" yocto-check-layer --no-auto-dependency \
    --dependency "$oe" -- "$work/layers/meta-qel-util" >"$log" 2>&1 ||
    { tail -n 60 "$log" >&2; fail "$release: yocto-check-layer failed"; }
  grep -E 'INFO: (meta-qel-util|qel-util) .*PASS|INFO: Ran [0-9]+ tests' "$log" | sed "s/^/yocto-check: $release: /"
  echo "$stamp" > "$work/check-layer.passed"
  echo "yocto-check: $release: all BitBake checks passed in $((SECONDS - t0)) s"
}

releases=("$@")
if [ ${#releases[@]} -eq 0 ] && [ -d "$cache" ]; then
  for top in "$cache"/*/; do
    [ -d "$top/bitbake" ] && [ -d "$top/openembedded-core" ] &&
      [ -d "$top/meta-openembedded" ] && releases+=("$(basename "$top")")
  done
fi
newest_env=""
if [ ${#releases[@]} -eq 0 ]; then
  echo "yocto-check: NOT running the real BitBake checks: no checkouts of" \
       "bitbake, openembedded-core and meta-openembedded in $cache/<release>/"
else
  if [ ! -e "$cache/null" ]; then mknod -m 666 "$cache/null" c 1 3; fi
  mkdir -p "$locale_dir"
  [ -e "$locale_dir/en_US.UTF-8" ] ||
    localedef -i en_US -f UTF-8 "$locale_dir/en_US.UTF-8"
  for release in "${releases[@]}"; do
    check_release "$release"
    newest_env=$scratch/$release.env
  done
fi

# ---------------------------------------------------------------------------
# The build as the cmake class runs it.

# OpenEmbedded's cmake values for the recipe, with its folders written as
# @WORKDIR@, @S@, @B@, @SYSROOT@ and @SYSROOT_NATIVE@: from `bitbake -e`, or
# as wrynose gives them for qemuarm.
oe_values=$scratch/oe-values
if [ -n "$newest_env" ]; then
  workdir=$(sed -n 's/^WORKDIR="\(.*\)"$/\1/p' "$newest_env")
  s=$(sed -n 's/^S="\(.*\)"$/\1/p' "$newest_env")
  for var in OECMAKE_GENERATOR_ARGS OECMAKE_C_COMPILER OECMAKE_CXX_COMPILER \
      OECMAKE_C_FLAGS OECMAKE_CXX_FLAGS OECMAKE_C_FLAGS_RELEASE \
      OECMAKE_CXX_FLAGS_RELEASE OECMAKE_C_LINK_FLAGS OECMAKE_CXX_LINK_FLAGS \
      OECMAKE_ARGS EXTRA_OECMAKE; do
    grep -E "^(export )?$var=" "$newest_env" | sed 's/^export //'
  done | sed "s#$s#@S@#g; s#$workdir/build#@B@#g;
    s#$workdir/recipe-sysroot-native#@SYSROOT_NATIVE@#g;
    s#$workdir/recipe-sysroot#@SYSROOT@#g; s#$workdir#@WORKDIR@#g;
    s/  */ /g; s/=\" /=\"/; s/ \"$/\"/" > "$oe_values"
  echo "yocto-check: the build takes its options and flags from $(basename "$newest_env" .env)'s bitbake -e"
else
  cat > "$oe_values" <<'EOF'
OECMAKE_GENERATOR_ARGS="-G 'Ninja' -DCMAKE_MAKE_PROGRAM=ninja"
OECMAKE_C_COMPILER="arm-oe-linux-gnueabi-gcc"
OECMAKE_CXX_COMPILER="arm-oe-linux-gnueabi-g++"
OECMAKE_C_FLAGS="-mthumb -mfpu=neon -mfloat-abi=hard -mcpu=cortex-a15 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -fstack-protector-strong -O2 -D_FORTIFY_SOURCE=2 -Wformat -Wformat-security -Werror=format-security --sysroot=@SYSROOT@ -O2 -g -fcanon-prefix-map -ffile-prefix-map=@S@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@B@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@SYSROOT@= -ffile-prefix-map=@SYSROOT_NATIVE@= -pipe"
OECMAKE_CXX_FLAGS="-mthumb -mfpu=neon -mfloat-abi=hard -mcpu=cortex-a15 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -fstack-protector-strong -O2 -D_FORTIFY_SOURCE=2 -Wformat -Wformat-security -Werror=format-security --sysroot=@SYSROOT@ -O2 -g -fcanon-prefix-map -ffile-prefix-map=@S@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@B@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@SYSROOT@= -ffile-prefix-map=@SYSROOT_NATIVE@= -pipe -fvisibility-inlines-hidden"
OECMAKE_C_FLAGS_RELEASE="-DNDEBUG"
OECMAKE_CXX_FLAGS_RELEASE="-DNDEBUG"
OECMAKE_C_LINK_FLAGS="-mthumb -mfpu=neon -mfloat-abi=hard -mcpu=cortex-a15 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -fstack-protector-strong -O2 -D_FORTIFY_SOURCE=2 -Wformat -Wformat-security -Werror=format-security --sysroot=@SYSROOT@ -Wl,-O1 -Wl,--hash-style=gnu -Wl,--as-needed -Wl,-z,relro,-z,now"
OECMAKE_CXX_LINK_FLAGS="-mthumb -mfpu=neon -mfloat-abi=hard -mcpu=cortex-a15 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -fstack-protector-strong -O2 -D_FORTIFY_SOURCE=2 -Wformat -Wformat-security -Werror=format-security --sysroot=@SYSROOT@ -O2 -g -fcanon-prefix-map -ffile-prefix-map=@S@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@B@=/usr/src/debug/libqel-util/1.0.0 -ffile-prefix-map=@SYSROOT@= -ffile-prefix-map=@SYSROOT_NATIVE@= -pipe -fvisibility-inlines-hidden -Wl,-O1 -Wl,--hash-style=gnu -Wl,--as-needed -Wl,-z,relro,-z,now"
OECMAKE_ARGS="-DCMAKE_INSTALL_PREFIX:PATH=/usr -DCMAKE_INSTALL_BINDIR:PATH=bin -DCMAKE_INSTALL_SBINDIR:PATH=sbin -DCMAKE_INSTALL_LIBEXECDIR:PATH=libexec -DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc -DCMAKE_INSTALL_SHAREDSTATEDIR:PATH=../com -DCMAKE_INSTALL_LOCALSTATEDIR:PATH=/var -DCMAKE_INSTALL_LIBDIR:PATH=lib -DCMAKE_INSTALL_INCLUDEDIR:PATH=include -DCMAKE_INSTALL_DATAROOTDIR:PATH=share -DPYTHON_EXECUTABLE:PATH=/usr/bin/python3 -DPython_EXECUTABLE:PATH=/usr/bin/python3 -DPython3_EXECUTABLE:PATH=/usr/bin/python3 -DLIB_SUFFIX= -DCMAKE_INSTALL_SO_NO_EXE=0 -DCMAKE_TOOLCHAIN_FILE:FILEPATH=@WORKDIR@/toolchain.cmake -DCMAKE_NO_SYSTEM_FROM_IMPORTED=1 -DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON -DFETCHCONTENT_FULLY_DISCONNECTED=ON -DCMAKE_EXPORT_COMPILE_COMMANDS:BOOL=ON"
EXTRA_OECMAKE="-DQEL_UTIL_BUILD_EXAMPLES=ON -DQEL_UTIL_INSTALL_EXAMPLES=ON -DBUILD_TESTING=ON -DQEL_UTIL_INSTALL_TESTS=ON -DQEL_UTIL_TESTS_INSTALL_DIR=/usr/lib/libqel-util/ptest/tests -DQEL_UTIL_BUILD_TOOLS=ON"
EOF
  echo "yocto-check: the build takes the options and flags wrynose gives for qemuarm"
fi
# The ptest build needs GoogleTest for the target, which the Debian cross
# tool chain lacks (scripts/armhf.sh cross-builds the suite): the recipe
# without ptest. Debian's GCC 12 knows no -fcanon-prefix-map, which only
# makes OpenEmbedded's maps apply to canonical paths: left out.
sed -i 's/-DBUILD_TESTING=ON -DQEL_UTIL_INSTALL_TESTS=ON -DQEL_UTIL_TESTS_INSTALL_DIR=[^ "]*/-DBUILD_TESTING=OFF/
        s/ -fcanon-prefix-map//g' "$oe_values"
grep -q 'BUILD_TESTING=OFF' "$oe_values" || fail "the recipe's ptest switches changed"
echo "yocto-check: Debian's GCC 12 stands in for OpenEmbedded's, without -fcanon-prefix-map"

# elfutils for the target (the tools' DEPENDS, for qel-crashdump) with the
# libraries libdw links: Debian's armhf packages, unpacked, never installed.
source scripts/lib/multiarch.sh
dpkg --print-foreign-architectures | grep -qx armhf ||
  "${as_root[@]}" dpkg --add-architecture armhf
[ -n "$(offered_versions libc6 armhf)" ] || update_lists
mkdir -p "$scratch/debs"
chmod 777 "$scratch/debs"  # apt downloads as its own user
(cd "$scratch/debs" && apt-get download libdw-dev:armhf libdw1:armhf \
   libelf-dev:armhf libelf1:armhf zlib1g:armhf liblzma5:armhf \
   libbz2-1.0:armhf libzstd1:armhf) >"$scratch/debs.log" 2>&1 ||
  { cat "$scratch/debs.log" >&2; fail "elfutils for armhf could not be downloaded"; }
for deb in "$scratch"/debs/*.deb; do dpkg-deb -x "$deb" "$scratch/elfutils"; done

# The recipe sysroot, laid out as OpenEmbedded's (libraries in /usr/lib):
# the cross C library and what DEPENDS puts there (nlohmann-json's headers
# and CMake package, elfutils).
sysroot_for() {
  local root=$1
  mkdir -p "$root/usr/share/cmake" "$root/usr/include"
  cp -r /usr/arm-linux-gnueabihf/include/. "$root/usr/include/"
  cp -r /usr/arm-linux-gnueabihf/lib "$root/usr/lib"
  ln -s usr/lib "$root/lib"
  cp -r /usr/include/nlohmann "$root/usr/include/"
  cp -r /usr/share/cmake/nlohmann_json "$root/usr/share/cmake/"
  cp -r "$scratch/elfutils/usr/include/." "$root/usr/include/"
  cp -a "$scratch/elfutils/usr/lib/arm-linux-gnueabihf/." \
        "$scratch/elfutils/lib/arm-linux-gnueabihf/." "$root/usr/lib/"
}

# oe_build WORKDIR: configures, builds and installs WORKDIR/src in
# WORKDIR/build into WORKDIR/image, as do_generate_toolchain_file,
# do_configure, do_compile and do_install do.
oe_build() {
  local w=$1 src=$1/src b=$1/build
  sysroot_for "$w/recipe-sysroot"
  mkdir -p "$w/recipe-sysroot-native"
  (
    sed "s#@WORKDIR@#$w#g; s#@S@#$src#g; s#@B@#$b#g;
         s#@SYSROOT_NATIVE@#$w/recipe-sysroot-native#g;
         s#@SYSROOT@#$w/recipe-sysroot#g;
         s#arm-oe-linux-gnueabi-#arm-linux-gnueabihf-#g" "$oe_values" > "$w/values"
    source "$w/values"
    # The class's toolchain file, for the values above.
    cat > "$w/toolchain.cmake" <<EOF
set( CMAKE_CROSSCOMPILING TRUE )
set( CMAKE_SYSTEM_NAME Linux )
set( CMAKE_SYSTEM_PROCESSOR arm )
set( CMAKE_C_COMPILER $OECMAKE_C_COMPILER )
set( CMAKE_CXX_COMPILER $OECMAKE_CXX_COMPILER )
set( CMAKE_ASM_COMPILER $OECMAKE_C_COMPILER )
find_program( CMAKE_AR arm-linux-gnueabihf-gcc-ar DOC "Archiver" REQUIRED )
set( CMAKE_C_FLAGS "$OECMAKE_C_FLAGS" CACHE STRING "CFLAGS" )
set( CMAKE_CXX_FLAGS "$OECMAKE_CXX_FLAGS" CACHE STRING "CXXFLAGS" )
set( CMAKE_ASM_FLAGS "$OECMAKE_C_FLAGS" CACHE STRING "ASM FLAGS" )
set( CMAKE_C_FLAGS_RELEASE "$OECMAKE_C_FLAGS_RELEASE" CACHE STRING "Additional CFLAGS for release" )
set( CMAKE_CXX_FLAGS_RELEASE "$OECMAKE_CXX_FLAGS_RELEASE" CACHE STRING "Additional CXXFLAGS for release" )
set( CMAKE_C_LINK_FLAGS "$OECMAKE_C_LINK_FLAGS" CACHE STRING "LDFLAGS" )
set( CMAKE_CXX_LINK_FLAGS "$OECMAKE_CXX_LINK_FLAGS" CACHE STRING "LDFLAGS" )
set( CMAKE_FIND_ROOT_PATH $w/recipe-sysroot $w/recipe-sysroot-native )
set( CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY )
set( CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER )
set( CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY )
set( CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY )
set( CMAKE_PROGRAM_PATH "/" )
set( CMAKE_SYSROOT "$w/recipe-sysroot" )
set( CMAKE_INSTALL_RPATH )
set( CMAKE_BUILD_RPATH_USE_ORIGIN ON )
set( CMAKE_LIBRARY_PATH /usr/lib /usr/lib )
list(APPEND CMAKE_C_IMPLICIT_INCLUDE_DIRECTORIES /usr/include)
list(APPEND CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES /usr/include)
EOF
    # The class does the same unquoting (its shell function is eval'ed).
    eval "cmake $OECMAKE_GENERATOR_ARGS $src $OECMAKE_ARGS -B $b $EXTRA_OECMAKE -Wno-dev" &&
      cmake --build "$b" --target all -j2 &&
      DESTDIR=$w/image cmake --install "$b"
  )
}

# Two copies of the tree in unrelated folders, as two builders have them.
work_a=$scratch/a/libqel-util/1.0.0
work_b=$scratch/elsewhere/b/work
for w in "$work_a" "$work_b"; do
  copy_tree "$w/src"
  oe_build "$w" >"$w.log" 2>&1 ||
    { grep -A 8 -m 3 'error' "$w.log" >&2 || tail -n 40 "$w.log" >&2
      fail "the build in $w failed"; }
done
grep -q -- "-G 'Ninja'" "$work_a/values" && [ -f "$work_a/build/build.ninja" ] ||
  fail "not built with Ninja"
[ -x "$work_a/image/usr/bin/qel-crashdump" ] ||
  fail "qel-crashdump was left out: no elfutils found in the recipe sysroot"
grep -q -- '-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64' "$work_a/build/compile_commands.json" ||
  fail "the compile commands lack 64-bit time"
# No build type: its flags (RelWithDebInfo's -O2 -g -DNDEBUG) would follow
# OpenEmbedded's.
! grep -q -- '-DNDEBUG' "$work_a/build/compile_commands.json" ||
  fail "a build type's flags were added to OpenEmbedded's"
echo "yocto-check: configured, built and installed with Ninja, CMAKE_SYSROOT, 64-bit time and OpenEmbedded's flags, no build type of its own"

# Reproducible: the two builds' libraries match once stripped.
library=$(basename "$(readlink -f "$work_a/build/libqel_util.so")")
for w in "$work_a" "$work_b"; do
  arm-linux-gnueabihf-strip -o "$w.so" "$w/build/$library"
done
cmp -s "$work_a.so" "$work_b.so" ||
  fail "$library differs between builds in $work_a and $work_b"
echo "yocto-check: $library is the same from two build folders"

# OpenEmbedded's prefix maps hold: the debug information names the sources
# where the -src package puts them (what the -dbg package's debugger reads),
# and no build folder.
debug_dir=/usr/src/debug/libqel-util/1.0.0
arm-linux-gnueabihf-readelf --debug-dump=info,line "$work_a/build/$library" \
  >"$scratch/debug.txt" 2>/dev/null
grep -q "$debug_dir" "$scratch/debug.txt" && ! grep -q "$scratch" "$scratch/debug.txt" ||
  fail "the debug information does not name the sources in $debug_dir:" \
       "$(grep -m 3 'DW_AT_comp_dir\|DW_AT_name.*\.cpp' "$scratch/debug.txt")"
echo "yocto-check: the debug information names the sources in $debug_dir"

python3 - "$recipe" "$work_a/image" <<'PY'
import glob, os, re, sys

recipe, image = sys.argv[1], sys.argv[2]
text = open(recipe).read().replace("\\\n", " ")
PN = BPN = "libqel-util"
var = {
    "PN": PN, "BPN": BPN, "prefix": "/usr", "exec_prefix": "/usr",
    "base_prefix": "", "bindir": "/usr/bin", "sbindir": "/usr/sbin",
    "libexecdir": "/usr/libexec", "libdir": "/usr/lib",
    "includedir": "/usr/include", "datadir": "/usr/share",
    "mandir": "/usr/share/man", "docdir": "/usr/share/doc",
    "infodir": "/usr/share/info", "sysconfdir": "/etc",
    "localstatedir": "/var", "sharedstatedir": "/com",
    "base_bindir": "/bin", "base_sbindir": "/sbin", "base_libdir": "/lib",
    "systemd_system_unitdir": "/lib/systemd/system",
    "SOLIBS": ".so.*", "SOLIBSDEV": ".so",
}
var["FILES_SOLIBSDEV"] = "${base_libdir}/lib*${SOLIBSDEV} ${libdir}/lib*${SOLIBSDEV}"

# OpenEmbedded's defaults (meta/conf/bitbake.conf).
packages = "${PN}-src ${PN}-dbg ${PN}-staticdev ${PN}-dev ${PN}-doc ${PN}-locale ${PN}".split()
files = {
    "${PN}": "${bindir}/* ${sbindir}/* ${libexecdir}/* ${libdir}/lib*${SOLIBS} "
             "${sysconfdir} ${sharedstatedir} ${localstatedir} "
             "${base_bindir}/* ${base_sbindir}/* ${base_libdir}/*${SOLIBS} "
             "${base_prefix}/lib/udev ${prefix}/lib/udev ${base_libdir}/udev "
             "${libdir}/udev ${datadir}/${BPN} ${libdir}/${BPN}/* "
             "${datadir}/pixmaps ${datadir}/applications ${datadir}/idl "
             "${datadir}/omf ${datadir}/sounds ${libdir}/bonobo/servers",
    "${PN}-doc": "${docdir} ${mandir} ${infodir} ${datadir}/gtk-doc ${datadir}/gnome/help",
    "${PN}-dev": "${includedir} ${FILES_SOLIBSDEV} ${libdir}/*.la ${libdir}/*.o "
                 "${libdir}/pkgconfig ${datadir}/pkgconfig ${datadir}/aclocal "
                 "${base_libdir}/*.o ${libdir}/${BPN}/*.la ${base_libdir}/*.la "
                 "${libdir}/cmake ${datadir}/cmake",
    "${PN}-staticdev": "${libdir}/*.a ${base_libdir}/*.a ${libdir}/${BPN}/*.a",
    "${PN}-dbg": "/usr/lib/debug /usr/lib/debug-static /usr/src/debug",
    "${PN}-src": "",
    "${PN}-locale": "${datadir}/locale",
}

# The recipe's own PACKAGES and FILES.
for op, value in re.findall(r'^PACKAGES\s*(=\+|\+=|=)\s*"([^"]*)"', text, re.M):
    new = value.split()
    packages = new + packages if op == "=+" else packages + new if op == "+=" else new
for name, op, value in re.findall(r'^FILES:(\S+)\s*(\+=|=)\s*"([^"]*)"', text, re.M):
    files[name] = (files.get(name, "") + " " + value) if op == "+=" else value

def expand(s):
    while "${" in s:
        s = re.sub(r"\$\{(\w+)\}", lambda m: var[m.group(1)], s)
    return s

def walk(path):
    if os.path.isdir(path) and not os.path.islink(path):
        for top, dirs, names in os.walk(path):
            for n in names + [d for d in dirs if os.path.islink(os.path.join(top, d))]:
                yield os.path.join(top, n)
    else:
        yield path

owner = {}
for package in packages:
    for pattern in expand(files.get(package, "")).split():
        for match in sorted(glob.glob(image + pattern)):
            for path in walk(match):
                owner.setdefault(os.path.relpath(path, image), expand(package))

staged = {os.path.relpath(p, image) for p in walk(image)}
for path in sorted(staged):
    print(f"yocto-check: {owner.get(path, 'UNPACKAGED'):28} /{path}")
problems = [f"/{p} is in no package" for p in sorted(staged - owner.keys())]

# Where the recipe means each kind of file to go.
expected = [
    (r"usr/lib/libqel_util\.so\.[0-9.]+$", PN),
    (r"usr/(include/|lib/libqel_util\.so$|lib/pkgconfig/|lib/cmake/)", PN + "-dev"),
    (r"usr/bin/qel-exampled", PN + "-example"),
    (r"usr/bin/", PN + "-tools"),
    (r"usr/lib/qel_util/", PN + "-devsim-emulators"),
    (r"usr/share/(man|doc)/", PN + "-doc"),
]
for path in sorted(staged):
    wanted = [pkg for rx, pkg in expected if re.match(rx, path)]
    if not wanted:
        problems.append(f"/{path}: no package is meant for it")
    elif owner.get(path) != wanted[0]:
        problems.append(f"/{path} lands in {owner.get(path)}, meant for {wanted[0]}")
for pkg in (PN, PN + "-dev", PN + "-tools", PN + "-devsim-emulators"):
    if pkg not in owner.values():
        problems.append(f"{pkg} is empty")
for p in problems:
    print("yocto-check: " + p, file=sys.stderr)
sys.exit(1 if problems else 0)
PY
# The ptest package's suite, installed as the recipe installs it, runs from
# there through the layer's run-ptest as root and gives result lines and no
# failure. An overlay on /usr in a private mount namespace stands in for the
# device's root.
ptest=/usr/lib/libqel-util/ptest
{ cmake -S "$source_dir" -B "$scratch/ptest" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr \
    -DQEL_UTIL_INSTALL_TESTS=ON -DQEL_UTIL_TESTS_INSTALL_DIR=$ptest/tests &&
  cmake --build "$scratch/ptest" -j2 &&
  DESTDIR=$scratch/ptest-root cmake --install "$scratch/ptest"; } >"$scratch/ptest.log" 2>&1 ||
  { tail -n 40 "$scratch/ptest.log" >&2; fail "the suite did not build for installing"; }
install -m 0755 $layer/recipes-support/libqel-util/files/run-ptest \
  "$scratch/ptest-root$ptest/run-ptest"
unshare --mount --propagation private sh -c '
  mount -t overlay overlay -o "lowerdir=$1/usr:/usr" /usr && exec sh "$2"' sh \
  "$scratch/ptest-root" "$ptest/run-ptest" >"$scratch/ptest.out" 2>&1 || true
results=$(grep -cE '^(PASS|FAIL|SKIP): ' "$scratch/ptest.out" || true)
if [ "$results" -eq 0 ] || grep -q '^FAIL: ' "$scratch/ptest.out"; then
  cat "$scratch/ptest.out" >&2
  fail "run-ptest: the installed suite failed"
fi
echo "yocto-check: run-ptest: the installed suite gives $(grep -c '^PASS: ' "$scratch/ptest.out") PASS, $(grep -c '^SKIP: ' "$scratch/ptest.out" || true) SKIP, no FAIL"
echo "yocto-check: all passed in $((SECONDS - start)) s"
