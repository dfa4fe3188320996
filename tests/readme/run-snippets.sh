#!/bin/bash
# Runs one code block of the README or a guide as the snippet test asks
# (tests/readme/CMakeLists.txt). Programs and shell blocks run on the
# simulated device (qel-devsim), so nothing of the host changes.
#   run-snippets.sh TEST program QEL-DEVSIM PROGRAM
#       a built ```cpp block. A program that writes its pid file is a
#       daemon: it must keep running until SIGTERM and then remove the file.
#       Any other program must exit 0.
#   run-snippets.sh TEST sh QEL-DEVSIM SOURCE-ROOT DOC N
#       the N-th ```sh block of DOC, run by bash -e from the source root with
#       $QEL_SNIPPET_PATH before PATH; a block that starts qel-devsim itself
#       is run as it stands.
#   run-snippets.sh TEST run-by SOURCE-ROOT DOC N PATH
#       the N-th ```sh block of DOC is run by the project file PATH: PATH
#       must hold each of its command lines (comments aside), or name DOC.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
test=$1 mode=$2
shift 2
# A skip as GoogleTest words it, so that scripts/armhf.sh lists the reason.
skip() { printf '%s: Skipped\n%s\n' "$test" "$1"; exit 77; }
fail() { echo "$test: $*" >&2; exit 1; }
block() { awk -v kind=sh -v n="$2" -f "$here/extract.awk" "$1"; }

wait_until() {  # wait_until TEST...: up to half a minute
  for _ in $(seq 600); do "$@" && return 0; sleep 0.05; done
  return 1
}

run_program() {
  local program=$1 name pidfile pid
  name=$(basename "$program")
  pidfile=/var/run/$name.pid
  "$program" </dev/null || fail "the program exited with a failure"
  if wait_until test -s "$pidfile"; then
    pid=$(cat "$pidfile")
    sleep 0.2
    kill -0 "$pid" || fail "the daemon did not keep running"
    kill -TERM "$pid"
    wait_until test ! -e "$pidfile" || fail "the pid file outlived SIGTERM"
    echo "$test: ran as a daemon and stopped on SIGTERM"
  else
    echo "$test: ran and exited 0"
  fi
}

run_block() {
  local root=$1 doc=$2 n=$3 commands
  commands=$(block "$root/$doc" "$n")
  cd "$root"
  local status=0
  PATH=$QEL_SNIPPET_PATH:$PATH bash -e -c "$commands" </dev/null || status=$?
  if [ "$status" -ne 0 ]; then
    echo "$test: the block failed (status $status):"$'\n'"$commands" >&2
    exit "$status"
  fi
  echo "$test: ran"
}

check_run_by() {
  local root=$1 doc=$2 n=$3 path=$4 line missing=0
  [ -f "$root/$path" ] || fail "$path, which should run it, is no file of the project"
  if grep -qF -- "$doc" "$root/$path"; then
    echo "$test: $path takes the block from $doc"
    return
  fi
  while IFS= read -r line; do
    line=$(sed -E 's/(^|[[:space:]]+)#.*$//; s/^[[:space:]]+//; s/[[:space:]]+$//' <<< "$line")
    [ -n "$line" ] || continue
    grep -qF -- "$line" "$root/$path" ||
      { echo "$test: $path does not run: $line" >&2; missing=1; }
  done < <(block "$root/$doc" "$n")
  [ "$missing" -eq 0 ] || exit 1
  echo "$test: $path runs every command of the block"
}

case "$mode" in
  run-by) check_run_by "$@"; exit ;;
  --inside-program) run_program "$@"; exit ;;
  --inside-sh) run_block "$@"; exit ;;
  program|sh) ;;
  *) fail "unknown mode $mode" ;;
esac

devsim=$1
shift
if [ -n "${QEL_EMULATOR:-}" ]; then
  skip "qel-devsim of this build runs on the device, not here"
fi
status=0
# A block that starts qel-devsim itself has its simulated device from it;
# run inside another one, the simulator does not nest cleanly.
if [ "$mode" = sh ] && block "$1/$2" "$3" | grep -Eq '(^|[;&|(]|\$\()[[:space:]]*qel-devsim([[:space:]]|$)'; then
  (run_block "$@") || status=$?
else
  "$devsim" -- bash "$0" "$test" "--inside-$mode" "$@" || status=$?
fi
# The simulator's own failure (a refused namespace, a host program it needs
# missing) is no fault of the block; it has said why.
[ "$status" -ne 125 ] || skip "qel-devsim cannot run here"
exit "$status"
