#!/bin/bash
# Sets up, builds and runs the daemon on this host with sensible defaults:
# installs the packages, builds, installs the collection scripts under
# /etc/utils and a default /etc/chd/platform.conf (if there is none), starts a
# private status-store bus at /run/chd/bus, chd, and the host client
# application. chd logs to the terminal; Ctrl-C (or SIGTERM) stops everything.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

"$root/scripts/setup.sh"
build=$("$root/scripts/build.sh" normal -DCHD_BUILD_TESTS=OFF | tail -n 1)

install -d /etc/utils /etc/chd /run/chd /var/lib/chd
for script in "$root"/host/scripts/utils/*.sh; do
  [ -e "$script" ] && install -m 0755 "$script" /etc/utils/
done
if [ ! -e /etc/chd/platform.conf ]; then
  cat > /etc/chd/platform.conf <<CONF
# Platform settings of this host box (GLib key-file syntax). See README.md.
[platform]
chd_support=true
model=HOST
manufacturer=Generic
manufacturer_id=0000
log_path=/var/log/chd

[statusstore]
bus=unix:path=/run/chd/bus

[settings]
file=/var/lib/chd/settings.conf
CONF
fi
export CHD_PLATFORM_CONFIG=/etc/chd/platform.conf
export TLCOM_COMPONENT_PATH="$build/lib"
bus=$(sed -n 's/^bus=//p' /etc/chd/platform.conf | head -n 1)

pids=()
stop() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap stop EXIT INT TERM

if [[ "$bus" == unix:path=* ]]; then
  rm -f "${bus#unix:path=}"
  dbus-daemon --session --nofork --nopidfile --address="$bus" &
  pids+=($!)
  for _ in $(seq 50); do [ -S "${bus#unix:path=}" ] && break; sleep 0.1; done
fi

CHD_LOG_STDERR=1 "$build/bin/chd" &
chd_pid=$!
pids+=("$chd_pid")
"$build/bin/chd-client-app" ${bus:+--bus "$bus"} &
pids+=($!)

echo "chd is running (pid $chd_pid). Watch the status store with:"
echo "  $build/bin/chd-status watch"
wait "$chd_pid"
