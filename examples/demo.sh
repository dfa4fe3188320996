#!/bin/bash
# Builds the example service and shows the daemon framework at work, in a
# throw-away sandbox (private mount, IPC, network and PID namespaces), so that
# nothing of the host's /var/run, /home or syslog is touched.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if [ "${1:-}" != "--inside" ]; then
  bash "$root/scripts/install-deps.sh"
  cmake -S "$root" -B "$root/build" >/dev/null
  cmake --build "$root/build" -j "$(nproc)" >/dev/null
  user=()
  [ "$(id -u)" -eq 0 ] || user=(--user --map-root-user)
  exec unshare "${user[@]}" --mount --ipc --net --pid --fork --mount-proc \
    bash "$0" --inside
fi

# --- inside the sandbox -----------------------------------------------------
bin="$root/build/examples"
step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

mount --make-rprivate /
mount -t tmpfs tmpfs /run        # /var/run
mount -t tmpfs tmpfs /home
mount -t tmpfs tmpfs /mnt
mkdir /mnt/dev && mount --rbind /dev /mnt/dev
mount -t tmpfs tmpfs /dev        # a /dev of our own, for /dev/log
for node in null zero random urandom tty; do
  touch "/dev/$node" && mount --bind "/mnt/dev/$node" "/dev/$node"
done
ip link set lo up

# A syslog listener on the private /dev/log: one line per message.
python3 -u - <<'PY' > /mnt/syslog.txt 2>&1 &
import socket
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("/dev/log")
while True:
    print("  syslog| " + s.recv(8192).decode(errors="replace"), flush=True)
PY
while [ ! -S /dev/log ]; do sleep 0.05; done
shown=0
show_syslog() {
  sleep 0.3
  tail -n +$((shown + 1)) /mnt/syslog.txt
  shown=$(wc -l < /mnt/syslog.txt)
}
wait_for() { for _ in $(seq 100); do [ -e "$1" ] && return 0; sleep 0.05; done; return 1; }

step "Start qel-exampled: it forks into a new session and the launcher exits"
"$bin/qel-exampled" 2>&1 | sed 's/^/  stderr| /'
echo "  launcher exit status: ${PIPESTATUS[0]}"
wait_for /var/run/qel-exampled.pid
pid=$(cat /var/run/qel-exampled.pid)
echo "  /var/run/qel-exampled.pid holds: $pid"
ps -o pid,ppid,sid,stat,cmd -p "$pid" | sed 's/^/  /'
show_syslog

step "A second instance is refused while the first runs"
"$bin/qel-exampled" 2>&1 | sed 's/^/  stderr| /'
sleep 0.3
show_syslog

step "SIGTERM stops the main loop; the exit handler removes the pid file"
kill -TERM "$pid"
while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
[ -e /var/run/qel-exampled.pid ] && echo "  pid file still there!" ||
  echo "  /var/run/qel-exampled.pid is gone"
show_syslog

step "A crash (SIGSEGV) appends the call stack to /home/root/log/qel-exampled_dump.txt"
mkdir -p /home/root/log
"$bin/qel-exampled" >/dev/null 2>&1
wait_for /var/run/qel-exampled.pid
pid=$(cat /var/run/qel-exampled.pid)
kill -SEGV "$pid"
while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
ls -l /home/root/log | sed 's/^/  /'
sed 's/^/  dump| /' /home/root/log/qel-exampled_dump.txt
[ -e /var/run/qel-exampled.pid ] || echo "  the pid file was removed after the crash too"
show_syslog
