#!/bin/sh
# Writes wifichip.tar into the log directory: an archive of whatever state
# the host's Wi-Fi chips expose (wireless statistics, interface and PHY
# attributes, iw's view). A host without Wi-Fi gets an empty archive.
# shellcheck source=SCRIPTDIR/chd_log_dir.sh
. "$(dirname "$0")/chd_log_dir.sh"

# Copies the readable plain files of one sysfs directory (not its subdirectories).
copy_attributes() {
  from=$1
  to=$2
  mkdir -p "$to"
  for file in "$from"/*; do
    if [ ! -f "$file" ] || [ ! -r "$file" ]; then continue; fi
    cat "$file" >"$to/${file##*/}" 2>/dev/null || rm -f "$to/${file##*/}"
  done
}

collect_wifi_state() {
  stage=$1
  found=0
  for dev in /sys/class/net/*; do
    [ -d "$dev/wireless" ] || [ -e "$dev/phy80211" ] || continue
    found=1
    iface=${dev##*/}
    copy_attributes "$dev" "$stage/net/$iface"
    [ -d "$dev/statistics" ] && copy_attributes "$dev/statistics" "$stage/net/$iface/statistics"
    [ -d "$dev/device" ] && copy_attributes "$dev/device" "$stage/net/$iface/device"
  done
  for phy in /sys/class/ieee80211/*; do
    [ -d "$phy" ] || continue
    found=1
    copy_attributes "$phy" "$stage/ieee80211/${phy##*/}"
  done
  if [ "$found" = 1 ]; then
    [ -r /proc/net/wireless ] && cat /proc/net/wireless >"$stage/proc_net_wireless"
    if command -v iw >/dev/null 2>&1; then
      iw dev >"$stage/iw_dev.txt" 2>&1
      iw phy >"$stage/iw_phy.txt" 2>&1
    fi
  fi
}

wifi_archive() {
  # Staging directories of runs killed at the daemon's time limit (a live run's is seconds old).
  find "${TMPDIR:-/tmp}" -maxdepth 1 -type d -name 'wifichip.??????' -mmin +1 -exec rm -rf {} + 2>/dev/null
  stage=$(mktemp -d "${TMPDIR:-/tmp}/wifichip.XXXXXX") || return 1
  collect_wifi_state "$stage"
  # An empty staging directory gives a valid archive with no members.
  (cd "$stage" && find . -mindepth 1 -maxdepth 1 | sed 's|^\./||' | LC_ALL=C sort | tar -cf - -T -)
  status=$?
  rm -rf "$stage"
  return $status
}

chd_publish wifichip.tar wifi_archive
