#!/bin/bash
# Runs each README program as the README shows it, in private mount, IPC and
# PID namespaces with an empty /var/run and /home, so nothing of the host
# changes. A program that writes a pid file is a daemon: it must keep running
# until SIGTERM and then remove its pid file. Any program must exit 0.
#   run-snippets.sh PROGRAM...   ($QEL_EMULATOR runs programs of another
#                                 architecture)
set -euo pipefail
if [ "${1:-}" != --inside ]; then
  user=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! unshare --user --map-root-user true 2>/dev/null; then
      echo "[  SKIPPED ] needs root or a user namespace, which the kernel refuses"
      exit 77
    fi
    user=(--user --map-root-user)
  fi
  exec unshare "${user[@]}" --mount --ipc --pid --fork --mount-proc \
    bash "$0" --inside "$@"
fi
shift

mount --make-rprivate /
mount -t tmpfs tmpfs /var/run
mount -t tmpfs tmpfs /home
# Syslog lines go nowhere rather than into the host's log.
[ -e /dev/log ] && mount --bind /dev/null /dev/log

wait_until() {  # wait_until TEST...: up to five seconds
  for _ in $(seq 100); do "$@" && return 0; sleep 0.05; done
  return 1
}

for program in "$@"; do
  name=$(basename "$program")
  pidfile=/var/run/$name.pid
  # shellcheck disable=SC2086  # the emulator may be a command with options
  if ! $QEL_EMULATOR "$program" </dev/null; then
    echo "$name: exited with a failure"; exit 1
  fi
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
