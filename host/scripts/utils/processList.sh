#!/bin/sh
# Writes processList.log into the log directory: every running process with
# its parent, owner, state, memory, CPU use, age and command line.
# shellcheck source=SCRIPTDIR/chd_log_dir.sh
. "$(dirname "$0")/chd_log_dir.sh"

# Without procps (for instance on a busybox box) the same facts come straight from /proc.
proc_list() {
  echo "PID PPID STATE RSS_KIB COMMAND"
  for dir in /proc/[0-9]*; do
    pid=${dir#/proc/}
    status=$(cat "$dir/status" 2>/dev/null) || continue
    ppid=$(printf '%s\n' "$status" | awk '/^PPid:/ { print $2 }')
    state=$(printf '%s\n' "$status" | awk '/^State:/ { print $2 }')
    rss=$(printf '%s\n' "$status" | awk '/^VmRSS:/ { print $2 }')
    cmd=$(tr '\0' ' ' <"$dir/cmdline" 2>/dev/null)
    [ -n "$cmd" ] || cmd="[$(cat "$dir/comm" 2>/dev/null)]"
    echo "$pid $ppid $state ${rss:-0} $cmd"
  done
}

process_list() {
  date '+Collected %Y-%m-%dT%H:%M:%S%z'
  if command -v ps >/dev/null 2>&1 && ps -eo pid,ppid,user,stat,nice,rss,vsz,pcpu,etime,args 2>/dev/null; then
    return 0
  fi
  proc_list
}

chd_publish processList.log process_list
