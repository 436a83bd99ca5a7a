#!/bin/sh
# Writes fdStatus.log into the log directory: the open file descriptors of
# every running process, with what each one refers to.
# shellcheck source=SCRIPTDIR/chd_log_dir.sh
. "$(dirname "$0")/chd_log_dir.sh"

# Processes may end while they are listed; what vanished is skipped.
process_fds() {
  listing=
  count=0
  for fd in "$1"/fd/*; do
    [ -L "$fd" ] || continue
    count=$((count + 1))
    target=$(readlink "$fd" 2>/dev/null) || target="(not readable)"
    listing="$listing${fd##*/} -> $target
"
  done
  echo "==== pid ${1#/proc/} ($2): $count open"
  printf '%s' "$listing"
}

fd_status() {
  date '+Collected %Y-%m-%dT%H:%M:%S%z'
  awk '{ print "System: " $1 " allocated, " $3 " maximum" }' /proc/sys/fs/file-nr 2>/dev/null
  for dir in /proc/[0-9]*; do
    name=$(cat "$dir/comm" 2>/dev/null) || continue
    process_fds "$dir" "$name"
  done
}

chd_publish fdStatus.log fd_status
