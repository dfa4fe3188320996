#!/bin/bash
# Runs each README program as the README shows it, on the simulated device
# (qel-devsim), so nothing of the host changes. A program that writes a pid
# file is a daemon: it must keep running until SIGTERM and then remove its
# pid file. Any program must exit 0.
#   run-snippets.sh QEL-DEVSIM PROGRAM...
set -euo pipefail
# A skip as GoogleTest words it, so that scripts/armhf.sh lists the reason.
skip() { printf 'Readme.Snippets: Skipped\n%s\n' "$1"; exit 77; }

if [ "${1:-}" != --inside ]; then
  devsim=$1
  shift
  if [ -n "${QEL_EMULATOR:-}" ]; then
    skip "qel-devsim of this build runs on the device, not here"
  fi
  status=0
  "$devsim" -- bash "$0" --inside "$@" || status=$?
  # The simulator's own failure (a refused namespace) is no fault of theirs.
  [ "$status" -ne 125 ] || skip "qel-devsim cannot run here"
  exit "$status"
fi
shift

wait_until() {  # wait_until TEST...: up to half a minute
  for _ in $(seq 600); do "$@" && return 0; sleep 0.05; done
  return 1
}

for program in "$@"; do
  name=$(basename "$program")
  pidfile=/var/run/$name.pid
  "$program" </dev/null || { echo "$name: exited with a failure"; exit 1; }
  if wait_until test -s "$pidfile"; then
    pid=$(cat "$pidfile")
    sleep 0.2
    kill -0 "$pid" || { echo "$name: the daemon did not keep running"; exit 1; }
    kill -TERM "$pid"
    wait_until test ! -e "$pidfile" ||
      { echo "$name: the pid file outlived SIGTERM"; exit 1; }
    echo "$name: ran as a daemon and stopped on SIGTERM"
  else
    echo "$name: ran and exited 0"
  fi
done
