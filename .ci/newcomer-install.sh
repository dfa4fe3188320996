#!/bin/bash
# Inside a fresh root that has only a compiler and CMake: follows "Using the
# installed library" of docs/installing.md as a newcomer would. Its install
# block builds and installs, the installed tool starts, a program of the
# user's own finds the library with find_package(qel_util), and the
# uninstall target takes every installed file away again.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh

block=$(awk '/^## Using the installed library/ { on = 1 }
             on && /^```sh/ { inside = 1; next }
             inside && /^```/ { exit }
             inside' docs/installing.md)
[ -n "$block" ] || { echo "docs/installing.md: no install block found" >&2; exit 1; }
note "the install block of docs/installing.md"
printf '%s\n' "$block" | sed 's/^/    /'
bash -euo pipefail -c "$block"

note "the installed tool starts, and finds the library beside it without ldconfig"
qel-neighbour 127.0.0.1
tool=/usr/local/bin/qel-neighbour
loader=$(readelf -l "$tool" | sed -n 's/.*interpreter: \(.*\)]/\1/p')
"$loader" --inhibit-cache "$tool" 127.0.0.1

note "a program of one's own, with find_package(qel_util)"
build_tree tests/consumer/project /tmp/consumer
/tmp/consumer/consumer

note "uninstall"
step "cmake --build build --target uninstall" cmake --build build --target uninstall
left=$(find /usr/local -name '*qel*')
[ -z "$left" ] || { echo "left behind after uninstall: $left" >&2; exit 1; }
note "nothing of the project is left in /usr/local"
