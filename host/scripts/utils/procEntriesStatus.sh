#!/bin/sh
# Writes procEntriesStatus.log into the log directory: a summary of the
# kernel's view of the box from /proc.
# shellcheck source=SCRIPTDIR/chd_log_dir.sh
. "$(dirname "$0")/chd_log_dir.sh"

proc_summary() {
  date '+Collected %Y-%m-%dT%H:%M:%S%z'
  for entry in version uptime loadavg meminfo stat vmstat cpuinfo mounts partitions diskstats \
    interrupts net/dev net/snmp sys/fs/file-nr; do
    echo "==== /proc/$entry"
    cat "/proc/$entry" 2>/dev/null || echo "(not available)"
  done
}

chd_publish procEntriesStatus.log proc_summary
