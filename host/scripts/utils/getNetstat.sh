#!/bin/sh
# Writes netstat.log into the log directory: socket statistics and every
# open TCP, UDP and Unix socket, with ss (iproute2) or else netstat.
# shellcheck source=SCRIPTDIR/chd_log_dir.sh
. "$(dirname "$0")/chd_log_dir.sh"

socket_statistics() {
  date '+Collected %Y-%m-%dT%H:%M:%S%z'
  if command -v ss >/dev/null 2>&1; then
    ss -s
    echo
    ss -tuanp
    echo
    ss -xanp
  elif command -v netstat >/dev/null 2>&1; then
    netstat -s 2>/dev/null
    echo
    netstat -anp 2>/dev/null || netstat -an
  else
    for table in tcp tcp6 udp udp6 unix; do
      echo "==== /proc/net/$table"
      cat "/proc/net/$table" 2>/dev/null
    done
  fi
}

chd_publish netstat.log socket_statistics
