#!/bin/bash
# The example service under a real systemd: a minbase Debian 12 root with
# systemd, booted as PID 1 in a container (systemd-nspawn), runs the installed
# example from its shipped unit, and a unit of the checks' own tests:
#   - Type=notify: the start returns once the service is ready, the main pid
#     is the pid file's, logs reach the journal, the stop is clean;
#   - a second instance refused by the pid file fails its start;
#   - the watchdog ends a hung loop and Restart= brings the service back;
#   - a crash is restarted (Restart=on-failure) and leaves its dump;
#   - Type=forking with PIDFile= still works;
#   - the shipped LSB init script starts, refuses, reports and stops it.
# The root is made once and kept in /var/cache/qel-util-ci; every run
# unpacks a fresh copy. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/progress.sh
bash scripts/install-deps.sh
quiet_install mmdebstrap systemd-container

cache=/var/cache/qel-util-ci
image=$cache/systemd-bookworm.tar
if [ ! -f "$image" ]; then
  mkdir -p "$cache/apt"
  sources=/etc/apt/sources.list.d/debian.sources
  [ -f "$sources" ] || sources=/etc/apt/sources.list
  # apt fetches as root: the machine's /dev/null, which the root borrows,
  # need not be writable for apt's own user.
  step "making a Debian 12 root with systemd" \
    mmdebstrap --variant=minbase --include=systemd,systemd-sysv \
      --aptopt='APT::Sandbox::User "root"' \
      --setup-hook='mkdir -p "$1"/var/cache/apt/archives' \
      --setup-hook="sync-in $cache/apt /var/cache/apt/archives/" \
      --customize-hook="sync-out /var/cache/apt/archives $cache/apt" \
      bookworm "$cache/systemd-bookworm.new.tar" "$sources"
  mv "$cache/systemd-bookworm.new.tar" "$image"
fi

build_tree . build-systemd -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBUILD_TESTING=OFF -DQEL_UTIL_BUILD_TOOLS=OFF \
  -DQEL_UTIL_INSTALL_EXAMPLES=ON -DCMAKE_INSTALL_PREFIX=/usr

root=$(mktemp -d /var/tmp/qel-systemd-root.XXXXXX)
trap 'rm -rf --one-file-system "$root" "$root.log"' EXIT
tar -xf "$image" -C "$root"
for component in runtime examples; do
  DESTDIR=$root cmake --install build-systemd --component $component >/dev/null
done
chroot "$root" ldconfig
units=$root/etc/systemd/system
install -m644 examples/qel-exampled.service "$units/"
install -m755 examples/qel-exampled.init "$root/usr/local/sbin/qel-exampled.init"
mkdir -p "$root/home/root/log" "$units/multi-user.target.wants"
cat >"$units/qel-exampled-forking.service" <<'EOF'
[Unit]
Description=qel-exampled as a forking service

[Service]
Type=forking
PIDFile=/run/qel-exampled.pid
ExecStart=/usr/bin/qel-exampled
EOF
cat >"$units/qel-systemd-checks.service" <<'EOF'
[Unit]
Description=libqel_util's checks under systemd
After=multi-user.target

[Service]
Type=oneshot
ExecStart=/usr/local/sbin/qel-systemd-checks
StandardOutput=file:/var/log/qel-systemd-checks.log
StandardError=inherit
EOF
ln -s ../qel-systemd-checks.service "$units/multi-user.target.wants/"

cat >"$root/usr/local/sbin/qel-systemd-checks" <<'EOF'
#!/bin/bash
# Runs in the container as a unit; the container ends with its status.
set -uo pipefail
trap 'status=$?; echo "checks: status $status"; systemctl exit "$status"' EXIT
fail() { echo "FAIL: $*"; systemctl status --no-pager qel-exampled; exit 1; }
ok() { echo "ok: $*"; }
# eventually SECONDS COMMAND...: COMMAND succeeds within SECONDS.
eventually() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$end" ] || return 1
    sleep 0.2
  done
}
prop() { systemctl show -p "$2" --value "$1"; }
pidfile=/run/qel-exampled.pid
unit=qel-exampled
# The unit runs again with a new main pid than $1, after more restarts than $2.
restarted() {
  local pid
  pid=$(prop $unit MainPID)
  [ "$(prop $unit ActiveState)" = active ] && [ "$pid" != 0 ] && [ "$pid" != "$1" ] &&
    [ "$(prop $unit NRestarts)" -gt "$2" ]
}
answers() { qel-exampled-client ping | grep -q "got 'ping'"; }
in_journal() { journalctl -q -o cat -u $unit | grep -q "$1"; }

systemctl --version | head -1
systemctl start $unit || fail "Type=notify: start"
[ "$(prop $unit ActiveState)" = active ] || fail "Type=notify: not active once started"
main=$(prop $unit MainPID)
[ "$(cat $pidfile)" = "$main" ] || fail "Type=notify: pid file is not the main pid $main"
answers || fail "Type=notify: no answer"
eventually 10 in_journal "qel-exampled started" || fail "no log line in the journal"
systemctl stop $unit || fail "Type=notify: stop"
[ "$(prop $unit Result)" = success ] && [ "$(prop $unit ExecMainStatus)" = 0 ] ||
  fail "Type=notify: stop was not clean"
[ ! -e $pidfile ] || fail "Type=notify: pid file left behind"
ok "Type=notify: start, ready, stop"

qel-exampled   # by hand, outside the unit
eventually 10 test -s $pidfile || fail "started by hand: no pid file"
hand=$(cat $pidfile)
! systemctl start $unit 2>/dev/null || fail "refused: the start of a second instance succeeded"
[ "$(prop $unit Result)" = exit-code ] && [ "$(prop $unit ExecMainStatus)" = 1 ] ||
  fail "refused: not a failed start"
[ "$(cat $pidfile)" = "$hand" ] || fail "refused: pid file changed"
systemctl stop $unit
systemctl reset-failed $unit 2>/dev/null
kill "$hand"
eventually 10 test ! -e $pidfile || fail "started by hand: pid file left behind"
ok "refused second instance: failed start"

systemctl start $unit || fail "watchdog: start"
main=$(prop $unit MainPID)
restarts=$(prop $unit NRestarts)
qel-exampled-client hang >/dev/null 2>&1   # never answered
eventually 60 restarted "$main" "$restarts" || fail "watchdog: no restart"
in_journal "Watchdog timeout" || fail "watchdog: no timeout in the journal"
answers || fail "watchdog: no answer after the restart"
ok "watchdog: hung loop killed and restarted"

main=$(prop $unit MainPID)
restarts=$(prop $unit NRestarts)
qel-exampled-client crash >/dev/null 2>&1   # never answered
eventually 60 restarted "$main" "$restarts" || fail "crash: no restart"
grep -q "^SIGSEGV (.*, pid $main)" /home/root/log/qel-exampled_dump.txt || fail "crash: no dump"
answers || fail "crash: no answer after the restart"
systemctl stop $unit
[ ! -e $pidfile ] || fail "crash: pid file left behind"
ok "crash: restarted, dump left"

unit=qel-exampled-forking
systemctl start $unit || fail "Type=forking: start"
eventually 10 test "$(prop $unit MainPID)" = "$(cat $pidfile 2>/dev/null)" ||
  fail "Type=forking: main pid is not the pid file's"
answers || fail "Type=forking: no answer"
systemctl stop $unit
[ "$(prop $unit Result)" = success ] && [ ! -e $pidfile ] || fail "Type=forking: stop"
ok "Type=forking: start, stop"

init=/usr/local/sbin/qel-exampled.init
$init start >/dev/null || fail "init script: start"
eventually 10 test -s $pidfile || fail "init script: no pid file"
! $init start >/dev/null || fail "init script: second start succeeded"
$init status >/dev/null || fail "init script: status"
$init stop >/dev/null || fail "init script: stop"
! $init status >/dev/null && [ ! -e $pidfile ] || fail "init script: still running"
ok "LSB init script: start, refused start, status, stop"
EOF
chmod 755 "$root/usr/local/sbin/qel-systemd-checks"

note "booting systemd in a container"
status=0
timeout --kill-after=10 600 systemd-nspawn --quiet --boot --register=no \
  --keep-unit --directory="$root" </dev/null >"$root.log" 2>&1 || status=$?
cat "$root/var/log/qel-systemd-checks.log" 2>/dev/null || echo "the checks did not run"
if [ "$status" -ne 0 ]; then
  echo "systemd checks failed ($status); the container said:" >&2
  cat "$root.log" >&2
  exit 1
fi
note "systemd checks passed"
