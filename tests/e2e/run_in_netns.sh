#!/bin/bash
# Runs a command in a fresh network namespace whose only interface is loopback,
# so the daemon's ports (80, 1900, its HTTP port) collide with nothing else.
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
  echo "e2e tests need root for a private network namespace" >&2
  exit 1
fi
exec unshare --net -- /bin/bash -c 'ip link set lo up && ip route add 224.0.0.0/4 dev lo 2>/dev/null; exec "$@"' run_in_netns "$@"
