#!/bin/bash
# Shows the IPv4 neighbour check on a throw-away network: in a new network
# namespace it builds a bridge br0 with the ports ap0, client1, mesh0 and
# eth1, stand-alone devices eth0 and br-lan, ARP entries (one incomplete) and
# static forwarding entries, then asks qel-neighbour about a few addresses.
# Needs root, or an unprivileged user namespace.
#
# usage: scripts/neighbour-demo.sh [path/to/qel-neighbour]
set -euo pipefail

tool=${1:-$(dirname "$0")/../build/tools/qel-neighbour}
tool=$(realpath "$tool")
[ -x "$tool" ] || { echo "build qel-neighbour first: $tool" >&2; exit 1; }

if [ "${QEL_DEMO_INSIDE:-}" != 1 ]; then
  user=()
  [ "$(id -u)" -eq 0 ] || user=(-r)
  exec env QEL_DEMO_INSIDE=1 unshare "${user[@]}" -n "$0" "$tool"
fi

veth() { ip link add "$1" type veth peer name "p-$1"; ip link set "p-$1" up; ip link set "$1" up; }
neigh() { ip neigh add "$1" lladdr "$2" dev "$3" nud permanent; }

ip link set lo up
ip link add br0 type bridge
ip link set br0 up
for port in ap0 client1 mesh0 eth1; do veth "$port"; ip link set "$port" master br0; done
veth eth0
veth br-lan
ip addr add 10.1.0.254/24 dev br0
ip addr add 10.0.0.254/24 dev eth0
neigh 10.0.0.1 02:00:00:00:00:01 eth0
ip neigh add 10.0.0.2 dev eth0 nud incomplete
neigh 10.3.0.1 02:00:00:00:00:31 br-lan
neigh 10.1.0.1 02:00:00:00:01:01 br0
neigh 10.1.0.2 02:00:00:00:01:02 br0
neigh 10.1.0.4 02:00:00:00:01:04 br0
neigh 10.1.0.5 02:00:00:00:01:05 br0
bridge fdb add 02:00:00:00:01:01 dev ap0 master static
bridge fdb add 02:00:00:00:01:02 dev client1 master static
bridge fdb add 02:00:00:00:01:04 dev eth1 master static

echo "# /proc/net/arp"
cat /proc/net/arp
echo "# bridge fdb show br br0 (static entries)"
bridge fdb show br br0 | grep static
echo "# address result (2 role interface, 1 other, 0 unknown)"
"$tool" 10.0.0.1 10.0.0.1:8080 10.0.0.10 10.0.0.2 10.3.0.1 \
  10.1.0.1 10.1.0.2 10.1.0.4 10.1.0.5 10.9.9.9
