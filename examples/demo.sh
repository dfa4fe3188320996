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
  unshare "${user[@]}" --mount --ipc --net --pid --fork --mount-proc \
    bash "$0" --inside
  printf '\n\033[1m== Device identity: qel-devinfo on an emulated device\033[0m\n'
  bash "$root/scripts/devinfo-demo.sh" "$root/build"
  exit 0
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

step "A second process sends a request over the System V message queue"
echo "  \$ qel-exampled-client 'hello over the queue'"
"$bin/qel-exampled-client" 'hello over the queue' | sed 's/^/  answer| /'
show_syslog

step "A real peer (Python's socket module) sends datagrams to the abstract socket"
# A small network for the neighbour check: ap0 and eth0 are veth devices,
# br0 a bridge whose port client1 reaches 10.0.1.7.
veth() { ip link add "$1" type veth peer name "p-$1"; ip link set "p-$1" up; ip link set "$1" up; }
veth ap0; veth eth0; veth client1
ip link add br0 type bridge && ip link set br0 up && ip link set client1 master br0
ip neigh add 10.0.0.2 lladdr 02:00:00:00:00:02 dev ap0 nud permanent
ip neigh add 10.0.0.3 lladdr 02:00:00:00:00:03 dev eth0 nud permanent
ip neigh add 10.0.1.7 lladdr 02:00:00:00:01:07 dev br0 nud permanent
bridge fdb add 02:00:00:00:01:07 dev client1 master static
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
