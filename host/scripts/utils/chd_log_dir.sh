# shellcheck shell=sh
# Shared by the collection scripts (sourced, not run): finds the box's log
# directory and replaces a log file there in one step.
#
# The log directory is log_path in the [platform] group of the platform
# settings file ($CHD_PLATFORM_CONFIG, default /etc/chd/platform.conf), or
# /var/log/chd when the file or the key is missing.

chd_log_dir() {
  conf=${CHD_PLATFORM_CONFIG:-/etc/chd/platform.conf}
  dir=
  if [ -r "$conf" ]; then
    # GLib key-file syntax: [group] lines, key = value, '#' comments; the last value wins.
    dir=$(awk '
      /^[[:space:]]*#/ { next }
      /^[[:space:]]*\[/ { group = $0; gsub(/^[[:space:]]*\[|\][[:space:]]*$/, "", group); next }
      group == "platform" && index($0, "=") > 0 {
        key = substr($0, 1, index($0, "=") - 1); gsub(/^[[:space:]]+|[[:space:]]+$/, "", key)
        if (key != "log_path") next
        value = substr($0, index($0, "=") + 1); gsub(/^[[:space:]]+|[[:space:]]+$/, "", value)
        found = value
      }
      END { print found }' "$conf")
  fi
  [ -n "$dir" ] || dir=/var/log/chd
  while [ "${#dir}" -gt 1 ] && [ "${dir%/}" != "$dir" ]; do dir=${dir%/}; done
  mkdir -p "$dir" && printf '%s\n' "$dir"
}

# chd_publish NAME COMMAND...: runs COMMAND with its output going to a
# temporary file in the log directory, then renames it to NAME there. Readers
# (and runs of the same script at the same time) only ever see a whole file.
# COMMAND runs in a subshell, so its variables cannot disturb these.
#
# The daemon kills a run that overruns its time limit (seconds), and that run
# leaves its temporary file behind; one older than a minute belongs to no
# live run, and the next run of the same script removes it.
chd_publish() {
  chd_name=$1
  shift
  chd_dir=$(chd_log_dir) || return 1
  find "$chd_dir" -maxdepth 1 -type f -name ".$chd_name.??????" -mmin +1 -exec rm -f {} + 2>/dev/null
  chd_tmp=$(mktemp "$chd_dir/.$chd_name.XXXXXX") || return 1
  if ("$@") >"$chd_tmp" && chmod 0644 "$chd_tmp" && mv -f "$chd_tmp" "$chd_dir/$chd_name"; then
    return 0
  fi
  rm -f "$chd_tmp"
  return 1
}
