#!/bin/bash
# Takes the library the way a service project does and builds a small
# program (tests/consumer/project) against it twice, with
# find_package(qel_util) and with pkg-config, then runs both: a program that
# calls into the library, and a service that faults for real in its own
# code, whose crash dump must hold every frame of that code down to Run and
# main (with only the flags that the package hands it: 32-bit ARM compilers
# leave out the unwind tables this needs unless told).
#   scripts/consumer-test.sh install  BUILD_DIR
#       from `cmake --install` of the build into a scratch prefix
#   scripts/consumer-test.sh system [TRIPLET]
#       from the library installed in the system's own places, as the
#       Debian packages put it (TRIPLET: the multiarch directory, the
#       build machine's by default)
# The program is built like the library was: CXX, CXXFLAGS and LDFLAGS from
# the environment; QEL_TOOLCHAIN_FILE for a cross build, whose programs run
# through QEL_EMULATOR. The faulting service runs in a private mount
# namespace with its own /home (a user namespace for a user without root),
# and eu-addr2line (Debian package elfutils) names the frames of its
# executable, which the dump gives as offsets, by its symbol table; where qel-crashdump is
# installed (system), it must tell their source lines too. Without
# eu-addr2line the dumps go unchecked and the script ends with 77. Without
# pkg-config, the find_package half still runs
# and the script then exits 77 (skipped), naming the package to install.
set -euo pipefail
mode=${1:?install or system}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
project=$source_dir/tests/consumer/project
scratch=$(mktemp -d "${TMPDIR:-/tmp}/qel-consumer.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
cxx=${CXX:-c++}
read -r -a cxxflags <<< "${CXXFLAGS:-}"
read -r -a ldflags <<< "${LDFLAGS:-}"
read -r -a emulator <<< "${QEL_EMULATOR:-}"
toolchain=${QEL_TOOLCHAIN_FILE:-}

fail() { echo "consumer-test: $*" >&2; exit 1; }

case $mode in
  install)
    build=$(cd "${2:?build directory}" && pwd)
    root=$scratch/prefix
    cmake --install "$build" --prefix "$root" >/dev/null
    prefix=$root
    label="install tree" ;;
  system)
    # Nothing but the tool chain file: the packages must be found where
    # they are, without extra search paths.
    root=/
    prefix=/usr/lib/${2:-$(dpkg-architecture -qDEB_HOST_MULTIARCH)}
    label="system, $(basename "$prefix")" ;;

  *) fail "unknown mode $mode" ;;
esac

pcfile=$(find "$prefix" -maxdepth 3 -name qel_util.pc)
library=$(find "$prefix" -maxdepth 2 -name 'libqel_util.so.*.*' -type f)
[ -n "$pcfile" ] && [ -n "$library" ] || fail "incomplete install in $prefix"
libdir=$(dirname "$library")

run() {
  local out
  out=$(LD_LIBRARY_PATH=$libdir "${emulator[@]}" "$1")
  [ "$out" = "cbf43926 qel" ] || fail "$1 printed '$out'"
}

# The faulting service PROGRAM, built by LABEL: it ends with status 1 and
# its dump names, innermost first, its three nested functions, Process, Run
# and main, one after the other.
faulting_service_dumps() {
  local program=$1 how=$2 namespace=(--mount --propagation private) dump
  [ "$(id -u)" -eq 0 ] || namespace+=(--map-root-user)
  if ! command -v eu-addr2line >/dev/null; then
    dumps_unchecked="needs eu-addr2line (Debian package elfutils)"
    return
  fi
  dump=$(LD_LIBRARY_PATH=$libdir unshare "${namespace[@]}" bash -c '
    mount -t tmpfs tmpfs /home && mkdir -p /home/root/log
    status=0
    "$@" >/dev/null 2>&1 || status=$?
    [ "$status" -eq 1 ] || { echo "exit status $status, not 1"; exit 1; }
    cat "/home/root/log/$(basename "${!#}")_dump.txt"' _ "${emulator[@]}" "$program") ||
    fail "$how: the faulting service: $dump"
  local names=() line offset symbol
  while IFS= read -r line; do
    case $line in
      "$program(+"*)
        offset=${line#*(+}
        offset=${offset%%")"*}
        offset=$(printf '0x%x' $((offset - 1)))
        symbol=$(eu-addr2line -C -S -e "$program" "$offset" | head -n 1)
        names+=("${symbol%+0x*}") ;;
      *"(_Z"*"+0x"*)
        symbol=${line#*(}
        names+=("$(c++filt "${symbol%%+*}")") ;;
      *) names+=("$line") ;;
    esac
  done <<< "$dump"
  local expected="(anonymous namespace)::FaultInnermost(int)|(anonymous namespace)::FaultMiddle(int)|(anonymous namespace)::FaultOutermost(int)|(anonymous namespace)::FaultingService::Process()|qel_util::Daemon::Run()|main"
  local joined
  joined=$(IFS='|'; echo "${names[*]}")
  [[ "|$joined|" == *"|$expected|"* ]] ||
    { printf '%s\n' "$dump" >&2; fail "$how: the dump lacks frames of the service's own code"; }
  echo "consumer-test: $label: $how: the crash dump of a real fault holds every frame"
  if [ "$mode" = system ] && command -v qel-crashdump >/dev/null; then
    local told
    told=$(qel-crashdump <<< "$dump") || fail "$how: qel-crashdump failed"
    [[ $told == *"(anonymous namespace)::FaultInnermost(int) at $project/faulting_service.cpp:"* ]] ||
      { printf '%s\n' "$told" >&2; fail "$how: qel-crashdump does not tell the faulting line"; }
    echo "consumer-test: $label: $how: the installed qel-crashdump tells the faulting line"
  fi
}
dumps_unchecked=

# find_package: an install tree through CMAKE_PREFIX_PATH (a cross build
# searches below its root paths only, so the scratch tree becomes one of
# them); the system's packages with no help at all.
cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
[ -z "$toolchain" ] || cmake_args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
if [ "$mode" = install ]; then
  if [ -n "$toolchain" ]; then
    cmake_args+=(-DCMAKE_FIND_ROOT_PATH="$prefix" -DCMAKE_PREFIX_PATH=/)
  else
    cmake_args+=(-DCMAKE_PREFIX_PATH="$prefix")
  fi
fi
CXX=$cxx cmake -S "$project" -B "$scratch/cmake" "${cmake_args[@]}" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
run "$scratch/cmake/consumer"
echo "consumer-test: $label: find_package build runs"
faulting_service_dumps "$scratch/cmake/faulting_service" find_package

# Worded as GoogleTest words a skip, so that scripts/armhf.sh lists it.
skip() { printf 'consumer-test: Skipped\n%s\n' "$1"; exit 77; }
# Asked to run rather than looked up: a pkg-config that cannot run counts as
# none.
if ! pkg-config --version >/dev/null 2>&1; then
  skip "needs pkg-config (Debian package pkg-config)"
fi
# pkg-config: the file finds its prefix from its own place ...
pc() { PKG_CONFIG_LIBDIR=$(dirname "$pcfile") pkg-config "$@" qel_util; }
read -r -a pcflags <<< "$(pc --cflags --libs)"
mkdir "$scratch/pc"
for program in consumer faulting_service; do
  "$cxx" -std=c++17 -O2 -g "${cxxflags[@]}" "$project/$program.cpp" \
    "${pcflags[@]}" "${ldflags[@]}" -o "$scratch/pc/$program"
done
run "$scratch/pc/consumer"
# ... and a staging root given as the sysroot is not added twice.
read -r -a sysrootflags <<< "$(PKG_CONFIG_SYSROOT_DIR=$root pc --cflags --libs)"
[ "${sysrootflags[*]}" = "${pcflags[*]}" ] ||
  fail "pkg-config with PKG_CONFIG_SYSROOT_DIR gives other flags"
[ -f "$(pc --variable=includedir)/qel_util/qel_util.h" ] ||
  fail "pkg-config's includedir holds no headers"
echo "consumer-test: $label: pkg-config build runs"
faulting_service_dumps "$scratch/pc/faulting_service" pkg-config
[ -z "$dumps_unchecked" ] || skip "$dumps_unchecked"
