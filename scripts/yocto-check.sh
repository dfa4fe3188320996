#!/bin/bash
# What the Yocto recipe (yocto/meta-qel-util) relies on, without BitBake:
#   - the project configures, builds and installs with the arguments that
#     OpenEmbedded's cmake class passes (and the recipe's EXTRA_OECMAKE),
#     cross for armhf, into a staging folder (its ${D});
#   - every staged file lands in the package that the recipe's FILES give it
#     (OpenEmbedded's default FILES below, the first package in PACKAGES
#     whose patterns match takes a file), and none is left unpackaged;
#   - configured without the recipe's switches, the cross build stops with
#     a clear message instead of building the build machine's GoogleTest;
#   - the build is reproducible: a second copy of the tree, in another
#     folder and built in another folder, gives the same stripped library.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
source_dir=$PWD
recipe=yocto/meta-qel-util/recipes-support/libqel-util/libqel-util_1.0.0.bb
start=$SECONDS
scratch=$(mktemp -d "${TMPDIR:-/tmp}/qel-yocto.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

fail() { echo "yocto-check: $*" >&2; exit 1; }

# The recipe's LICENSE checksum is the licence's.
grep -q "file://LICENSE;md5=$(md5sum < LICENSE | cut -d' ' -f1)\"" "$recipe" ||
  fail "LIC_FILES_CHKSUM does not match LICENSE"

# The recipe sysroot holds what DEPENDS puts there (nlohmann-json's headers
# and CMake package) beside the target's C library.
sysroot=$scratch/recipe-sysroot
mkdir -p "$sysroot/usr/include" "$sysroot/usr/share/cmake"
cp -r /usr/include/nlohmann "$sysroot/usr/include/"
cp -r /usr/share/cmake/nlohmann_json "$sysroot/usr/share/cmake/"

# The class's generated toolchain.cmake, for an armhf machine. The build
# machine's tools stand in for the hosttools and the native sysroot.
cat > "$scratch/toolchain.cmake" <<TOOLCHAIN
set( CMAKE_SYSTEM_NAME Linux )
set( CMAKE_SYSTEM_PROCESSOR arm )
set( CMAKE_C_COMPILER arm-linux-gnueabihf-gcc )
set( CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++ )
set( CMAKE_C_FLAGS "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -O2 -g -pipe" CACHE STRING "CFLAGS" )
set( CMAKE_CXX_FLAGS "-march=armv7-a -mfpu=vfpv3-d16 -mfloat-abi=hard -O2 -g -pipe" CACHE STRING "CXXFLAGS" )
set( CMAKE_C_FLAGS_RELEASE "-DNDEBUG" CACHE STRING "Additional CFLAGS for release" )
set( CMAKE_CXX_FLAGS_RELEASE "-DNDEBUG" CACHE STRING "Additional CXXFLAGS for release" )
set( CMAKE_FIND_ROOT_PATH $sysroot /usr/arm-linux-gnueabihf )
set( CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY )
set( CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER )
set( CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY )
set( CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY )
set( CMAKE_INSTALL_RPATH "" )
set( CMAKE_BUILD_RPATH_USE_ORIGIN ON )
set( CMAKE_LIBRARY_PATH /usr/lib /lib )
TOOLCHAIN

read -r -a extra_oecmake <<< \
  "$(sed -n 's/^EXTRA_OECMAKE = "\(.*\)"$/\1/p' "$recipe")"
[ ${#extra_oecmake[@]} -gt 0 ] || fail "no EXTRA_OECMAKE in $recipe"

# Configures the tree $1 in $2 as cmake_do_configure does, with the
# arguments after them as EXTRA_OECMAKE.
oe_configure() {
  local source=$1 build=$2
  shift 2
  cmake -G "Unix Makefiles" -S "$source" -B "$build" \
    -DCMAKE_INSTALL_PREFIX:PATH=/usr \
    -DCMAKE_INSTALL_BINDIR:PATH=bin \
    -DCMAKE_INSTALL_SBINDIR:PATH=sbin \
    -DCMAKE_INSTALL_LIBEXECDIR:PATH=libexec \
    -DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc \
    -DCMAKE_INSTALL_SHAREDSTATEDIR:PATH=../com \
    -DCMAKE_INSTALL_LOCALSTATEDIR:PATH=/var \
    -DCMAKE_INSTALL_LIBDIR:PATH=lib \
    -DCMAKE_INSTALL_INCLUDEDIR:PATH=include \
    -DCMAKE_INSTALL_DATAROOTDIR:PATH=share \
    -DPYTHON_EXECUTABLE:PATH=/usr/bin/python3 \
    -DPython_EXECUTABLE:PATH=/usr/bin/python3 \
    -DPython3_EXECUTABLE:PATH=/usr/bin/python3 \
    -DLIB_SUFFIX= \
    -DCMAKE_INSTALL_SO_NO_EXE=0 \
    -DCMAKE_TOOLCHAIN_FILE="$scratch/toolchain.cmake" \
    -DCMAKE_NO_SYSTEM_FROM_IMPORTED=1 \
    -DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON \
    -DFETCHCONTENT_FULLY_DISCONNECTED=ON \
    "$@" -Wno-dev
}

# Two copies of the tree in unrelated folders, as two builders have them.
copy_tree() {
  mkdir -p "$1"
  tar -C "$source_dir" --exclude=./.git --exclude='./build*' \
    --exclude='./obj-*' -cf - . | tar -C "$1" -xf -
}
tree_a=$scratch/a/libqel-util-1.0.0
tree_b=$scratch/elsewhere/b/src
copy_tree "$tree_a"
copy_tree "$tree_b"

# Without the recipe's switches the tests are on, and no GoogleTest for
# the target is in the sysroot.
if oe_configure "$tree_a" "$scratch/build-defaults" >"$scratch/defaults.log" 2>&1; then
  fail "configured with tests on and no GoogleTest for the target"
fi
grep -q "GoogleTest for the target not found" "$scratch/defaults.log" ||
  { cat "$scratch/defaults.log" >&2; fail "no clear GoogleTest message"; }
[ ! -e "$scratch/build-defaults/googletest" ] ||
  fail "the build machine's GoogleTest sources were taken"
echo "yocto-check: tests on without a target GoogleTest: stops with the reason"

image=$scratch/image
for tree in "$tree_a" "$tree_b"; do
  { oe_configure "$tree" "$tree-build" "${extra_oecmake[@]}" &&
    cmake --build "$tree-build" -j2; } >"$tree.log" 2>&1 ||
    { tail -n 40 "$tree.log" >&2; fail "the build in $tree failed"; }
done
DESTDIR=$image cmake --build "$tree_a-build" --target install >/dev/null

# Reproducible: the two builds' libraries match once stripped.
library=$(basename "$(readlink -f "$tree_a-build/libqel_util.so")")
for tree in "$tree_a" "$tree_b"; do
  arm-linux-gnueabihf-strip -o "$tree.so" "$tree-build/$library"
done
cmp -s "$tree_a.so" "$tree_b.so" ||
  fail "$library differs between builds in $tree_a and $tree_b"
echo "yocto-check: $library is the same from two build folders"

python3 - "$recipe" "$image" <<'PY'
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
echo "yocto-check: all passed in $((SECONDS - start)) s"
