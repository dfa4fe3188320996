#!/bin/bash
# Runs a command (the test suite, which drives qel-devsim and the sandboxes)
# and fails when the host is not as it was before: the mounts of the host's
# mount namespace, its network links and namespaces, System V IPC objects,
# /var/run, /home/root and the modes of the device nodes in /dev.
#   .ci/host-state.sh COMMAND [ARG...]
set -uo pipefail

snapshot() {
  echo "## mounts"
  findmnt -rn --task 1 -o TARGET,FSTYPE,SOURCE,OPTIONS | sort
  echo "## links"
  ip -o link show | awk -F': ' '{print $2}' | sort
  echo "## network namespaces"
  ip netns list 2>/dev/null | sort
  echo "## IPC objects (key, id, owner, perms)"
  for kind in -q -s -m; do ipcs "$kind" | awk 'NR > 3 && NF {print $1, $2, $3, $4}'; done
  echo "## /var/run"
  find /var/run/ -mindepth 1 -maxdepth 1 -printf '%y %m %u %p\n' | sort
  echo "## /home/root"
  if [ -e /home/root ]; then find /home/root -printf '%y %m %u %p\n' | sort; fi
  echo "## device nodes"
  find /dev -xdev \( -type c -o -type b \) -printf '%m %u %g %p\n' | sort
}

before=$(snapshot)
status=0
"$@" || status=$?
after=$(snapshot)
if [ "$before" != "$after" ]; then
  echo "host-state: the host changed during: $*" >&2
  diff <(echo "$before") <(echo "$after") >&2
  [ "$status" -ne 0 ] || status=1
fi
exit "$status"
