#!/bin/bash
# Sets up, builds and runs the daemon on this host with sensible defaults:
# installs the packages, builds, installs the collection scripts under
# /etc/utils and a default /etc/chd/platform.conf (if there is none), a sample
# settings file (if there is none), starts a private status-store bus at
# /run/chd/bus, chd and the host client application, loads sample statuses
# and events, then says where the device is and what to try. Set-up output is
# shown only when a step fails; chd logs to /run/chd/chd.log. Ctrl-C (or
# SIGTERM) stops chd, then the client application, then the bus.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
examples=$root/packaging/examples
install -d /run/chd
setup_log=/run/chd/setup.log
chd_log=/run/chd/chd.log
: >"$setup_log"

# One progress line, rewritten in place on a terminal.
progress() {
  if [ -t 1 ]; then printf '\r\033[K%s' "$*"; else printf '%s\n' "$*"; fi
}
# Runs a set-up step with its output in the set-up log, shown only on failure.
step() {  # message command...
  local message=$1
  shift
  progress "run: $message"
  if ! "$@" >>"$setup_log" 2>&1; then
    printf '\nrun: %s failed:\n' "$message" >&2
    tail -n 60 "$setup_log" >&2
    exit 1
  fi
}

write_default_config() {
  cat >/etc/chd/platform.conf <<CONF
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
}

install_files() {
  install -d /etc/utils /etc/chd /var/lib/chd
  install -m 0755 "$root"/host/scripts/utils/*.sh /etc/utils/
  chmod 0644 /etc/utils/chd_log_dir.sh
  [ -e /etc/chd/platform.conf ] || write_default_config
}

# The value of KEY in [GROUP] of the platform settings file, or empty.
config_value() {  # group key
  awk -v want="$1" -v key="$2" '
    /^[[:space:]]*#/ { next }
    /^[[:space:]]*\[/ { group = $0; gsub(/^[[:space:]]*\[|\][[:space:]]*$/, "", group); next }
    group == want && index($0, "=") > 0 {
      k = substr($0, 1, index($0, "=") - 1); gsub(/^[[:space:]]+|[[:space:]]+$/, "", k)
      if (k == key) { v = substr($0, index($0, "=") + 1); gsub(/^[[:space:]]+|[[:space:]]+$/, "", v); found = v }
    }
    END { print found }' /etc/chd/platform.conf
}

step "installing packages (1/4)" "$root/scripts/setup.sh"
step "building (2/4)" "$root/scripts/build.sh" normal -DCHD_BUILD_TESTS=OFF
build=$(tail -n 1 "$setup_log")
step "installing scripts and configuration (3/4)" install_files

export CHD_PLATFORM_CONFIG=/etc/chd/platform.conf
bus=$(config_value statusstore bus)
settings_file=$(config_value settings file)
settings_file=${settings_file:-/var/lib/chd/settings.conf}
if [ ! -e "$settings_file" ]; then
  install -D -m 0644 "$examples/settings.conf" "$settings_file"
fi

bus_pid=
chd_pid=
client_pid=
stop() {
  trap - EXIT INT TERM
  # The daemon first, while its bus is still there to release the store's name.
  if [ -n "$chd_pid" ]; then kill "$chd_pid" 2>/dev/null || true; wait "$chd_pid" 2>/dev/null || true; fi
  if [ -n "$client_pid" ]; then kill "$client_pid" 2>/dev/null || true; wait "$client_pid" 2>/dev/null || true; fi
  if [ -n "$bus_pid" ]; then kill "$bus_pid" 2>/dev/null || true; wait "$bus_pid" 2>/dev/null || true; fi
}
trap stop EXIT
trap 'echo; echo "run: stopping"; exit 0' INT TERM

progress "run: starting chd (4/4)"
if [[ "$bus" == unix:path=* ]]; then
  rm -f "${bus#unix:path=}"
  dbus-daemon --session --nofork --nopidfile --address="$bus" >>"$setup_log" 2>&1 &
  bus_pid=$!
  for _ in $(seq 50); do [ -S "${bus#unix:path=}" ] && break; sleep 0.1; done
fi

CHD_LOG_STDERR=1 "$build/bin/chd" 2>"$chd_log" &
chd_pid=$!
status_tool=("$build/bin/chd-status")
for _ in $(seq 100); do
  "${status_tool[@]}" get "CHD Reporting Interval" >/dev/null 2>&1 && break
  kill -0 "$chd_pid" 2>/dev/null || { printf '\nrun: chd ended; its log:\n' >&2; tail -n 40 "$chd_log" >&2; exit 1; }
  sleep 0.1
done
"$build/bin/chd-client-app" >>"$chd_log" 2>&1 &
client_pid=$!

# Sample statuses and events, as the box's client application would set and post them.
while IFS= read -r line; do
  [[ -z "$line" || "$line" == \#* ]] && continue
  "${status_tool[@]}" set "${line%%=*}" "${line#*=}" >>"$setup_log" 2>&1
done <"$examples/statuses.conf"
while IFS= read -r line; do
  [[ -z "$line" || "$line" == \#* ]] && continue
  "${status_tool[@]}" post "${line%%=*}" "${line#*=}" >>"$setup_log" 2>&1
done <"$examples/events.conf"

# Where the stack listens: its start-up line names the interface, address and port.
stack=
for _ in $(seq 100); do
  stack=$(grep -o 'UPnP stack on \[[^]]*\] \[[^]]*\] port \[[0-9]*\]' "$chd_log" | tail -n 1 || true)
  [ -n "$stack" ] && break
  sleep 0.1
done
interface=$(sed -E 's/.*on \[([^]]*)\].*/\1/' <<<"$stack")
address=$(sed -E 's/.*\] \[([^]]*)\] port.*/\1/' <<<"$stack")
port=$(sed -E 's/.*port \[([0-9]*)\].*/\1/' <<<"$stack")
[[ "$address" == *:* ]] && address="[$address]"
log_dir=$(config_value platform log_path)
log_dir=${log_dir:-/var/log/chd}

progress ""
cat <<EOF
chd is running (pid $chd_pid) as a UPnP ManageableDevice on ${interface:-?}, with sample settings and statuses.
  description:  http://$address:$port/ManageableDevice/description.xml
  log files:    http://$address${log_dir%/}/NAME (port 80, and port $port), e.g. processList.log
  daemon log:   $chd_log          configuration: $CHD_PLATFORM_CONFIG
Try, from another terminal:
  $build/bin/chd-cp info $address
  $build/bin/chd-cp get $address /vsp/HDTV/
  $build/bin/chd-status watch
  $build/bin/chd-status set "Client Connection Status" Common.Disconnected
  curl http://$address${log_dir%/}/processList.log
Ctrl-C stops chd, then the client application and the bus.
EOF
wait "$chd_pid" || true
chd_pid=
