#!/bin/bash
# Builds the example service and shows the daemon framework at work on a
# simulated device (qel-devsim), so that nothing of the host's /var/run,
# /home or syslog is touched; then the device identity under the simulator.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/scripts/lib/progress.sh"

# The service runs under qel-devsim (tools/devsim), the simulated device:
# private mount, IPC, network and PID namespaces, its own /var/run, /home and
# /dev/log, and a bridged network with known neighbours.
if [ "${1:-}" != "--inside" ]; then
  bash "$root/scripts/install-deps.sh"
  build_tree "$root" "$root/build"
  syslog=$(mktemp)
  trap 'rm -f "$syslog"' EXIT
  "$root/build/tools/devsim/qel-devsim" --syslog "$syslog" \
    --neighbour 10.0.0.2=role --neighbour 10.0.0.3=other \
    --neighbour 10.0.1.7=none -- bash "$0" --inside "$syslog"
  heading "Device identity: qel-devinfo under qel-devsim"
  bash "$root/scripts/devinfo-demo.sh" "$root/build"
  exit 0
fi

# --- inside the simulated device --------------------------------------------
bin="$root/build/examples"
syslog=$2
shown=0
show_syslog() {
  sleep 0.3
  tail -n +$((shown + 1)) "$syslog" | sed 's/^/  syslog| /'
  shown=$(wc -l < "$syslog")
}
wait_for() { for _ in $(seq 100); do [ -e "$1" ] && return 0; sleep 0.05; done; return 1; }

heading "Start qel-exampled: it forks into a new session and the launcher exits"
"$bin/qel-exampled" 2>&1 | sed 's/^/  stderr| /'
echo "  launcher exit status: ${PIPESTATUS[0]}"
wait_for /var/run/qel-exampled.pid
pid=$(cat /var/run/qel-exampled.pid)
echo "  /var/run/qel-exampled.pid holds: $pid"
ps -o pid,ppid,sid,stat,cmd -p "$pid" | sed 's/^/  /'
show_syslog

heading "A second process sends a request over the System V message queue"
echo "  \$ qel-exampled-client 'hello over the queue'"
"$bin/qel-exampled-client" 'hello over the queue' | sed 's/^/  answer| /'
show_syslog

heading "A real peer (Python's socket module) sends datagrams to the abstract socket"
# qel-devsim made the network: 10.0.0.2 behind a role port, 10.0.0.3 on
# eth0, 10.0.1.7 behind the bridge on no known port.
sed 's/^/  arp| /' /proc/net/arp
python3 - <<'PY'
import socket
# The library's names are full-length abstract addresses: a marker byte
# (here NUL), the name, then zero bytes up to the end of sun_path.
server = (b"\0" + b"qel-exampled").ljust(108, b"\0")
me = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
me.bind((b"\0" + b"demo-peer").ljust(108, b"\0"))
me.settimeout(3)
for request in ["ping", "neighbour 10.0.0.2", "neighbour 10.0.0.3",
                "neighbour 10.0.1.7", "neighbour 10.0.0.9", "hello"]:
    me.sendto(request.encode(), server)
    print("  sent| %-22s answer| %s" % (request, me.recv(512).decode()))
PY
echo "  (neighbour results: 2 role interface, 1 other interface, 0 unknown)"
show_syslog

heading "A second instance is refused while the first runs"
"$bin/qel-exampled" 2>&1 | sed 's/^/  stderr| /'
sleep 0.3
show_syslog

heading "SIGTERM stops the main loop; the exit handler removes the pid file"
kill -TERM "$pid"
while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
[ -e /var/run/qel-exampled.pid ] && echo "  pid file still there!" ||
  echo "  /var/run/qel-exampled.pid is gone"
show_syslog

heading "A crash (SIGSEGV) appends the call stack to /home/root/log/qel-exampled_dump.txt"
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

heading "qel-crashdump tells each frame of the dump: function, source file and line"
echo "  \$ qel-crashdump /home/root/log/qel-exampled_dump.txt"
if [ -x "$root/build/tools/qel-crashdump" ]; then
  "$root/build/tools/qel-crashdump" /home/root/log/qel-exampled_dump.txt | sed 's/^/  /'
else
  echo "  (not built: it needs elfutils' libdw, Debian package libdw-dev)"
fi
