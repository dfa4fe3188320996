#!/bin/bash
# Shows the IPv4 neighbour check on the simulated device's network
# (qel-devsim --network): bridge br0 with the role port client1 and the port
# eth1, devices ap0 and eth0, and neighbours placed as asked; qel-neighbour
# then classes a few addresses. Needs root, or an unprivileged user
# namespace.
#
# usage: scripts/neighbour-demo.sh [build-dir]   (default: build)
set -euo pipefail

build=$(realpath "${1:-$(dirname "$0")/../build}")
[ -x "$build/tools/devsim/qel-devsim" ] || { echo "build first: $build" >&2; exit 1; }

"$build/tools/devsim/qel-devsim" --neighbour 10.1.0.1=role \
  --neighbour 10.0.0.1=other --neighbour 10.1.0.5=none -- sh -c '
echo "# /proc/net/arp"
cat /proc/net/arp
echo "# bridge fdb show br br0 (static entries)"
bridge fdb show br br0 | grep static
echo "# address result (2 role interface, 1 other, 0 unknown)"
"$0" 10.0.0.1 10.0.0.1:8080 10.0.0.10 10.1.0.1 10.1.0.5 10.9.9.9' \
  "$build/tools/qel-neighbour"
