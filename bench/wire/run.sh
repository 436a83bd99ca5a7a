#!/bin/bash
# Over-the-wire benchmark of chd beside its peers, all in one run, so that the
# goals are checked as ratios to peers measured under the same conditions.
#
# usage: bench/wire/run.sh [section...]      as root; sections (default: all, in this order)
#   startup    time from the exec of chd to its first SSDP alive on lo, WIRE_STARTS times
#   idle       CPU, wake-ups/s, VmRSS, PSS of chd, minidlna, Rygel (and nginx) over WIRE_IDLE s
#   soap       SOAP round trips/s at each concurrency: chd GetCurrentConfigurationVersion (keep-alive
#              and a connection per request) and GetSupportedDataModels, Rygel GetSystemUpdateID
#              (keep-alive and a connection per request), nginx 10 KB (both ways)
#   getvalues  chd GetValues of "/vsp/" (the whole tree; keep-alive and a connection per request),
#              minidlna Browse of 24 items (it closes every connection), nginx 10 KB
#   cp         a GUPnP control point calling in a loop (keep-alive, as server boxes call): chd
#              GetCurrentConfigurationVersion and GetValues "/vsp/", Rygel GetSystemUpdateID,
#              minidlna Browse of 24 items
# env (all optional):
#   WIRE_BUILD=./build      build directory with bin/chd, bin/chd-client-app, lib/
#   WIRE_OUT=/tmp/chd-bench-wire   results: *.tsv, summary.md, env.txt, logs in work/
#   WIRE_DUR=10 WIRE_ROUNDS=3 WIRE_CONC="1 16"   wrk seconds per row, interleaved rounds, connections
#   WIRE_CP_CONC="1 8"      calls the control point keeps outstanding (libsoup's session opens up to
#                           its per-host limit of connections for them)
#   WIRE_STARTS=10 WIRE_SETTLE=20 WIRE_IDLE=60   starts to time; seconds to settle, idle window
#   WIRE_PIN=1              servers on CPU 1, wrk on CPU 0 (0: no pinning)
#   WIRE_UA=                User-Agent of every load request (unset: none, as wrk sends; control
#                           points send one, and GUPnP looks up the agent of a request without)
#   WIRE_PERF=0             1: also profile chd under c=16 load with perf (perf-*.txt);
#                           peers: the peers as well (Rygel's and minidlna's answers)
# A run of about ten minutes: WIRE_DUR=5 WIRE_IDLE=60 WIRE_SETTLE=15 bench/wire/run.sh
#
# Everything runs in one private network namespace that has nothing but its
# own loopback (plus a multicast route on lo, so that SSDP stays on lo); every
# server is started and stopped by its pid; every load is bounded by wrk -d
# and timeout.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${WIRE_BUILD:-$root/build}" && pwd)
out=${WIRE_OUT:-/tmp/chd-bench-wire}
sections=${*:-startup idle soap getvalues cp}
dur=${WIRE_DUR:-10}
rounds=${WIRE_ROUNDS:-3}
concurrencies=${WIRE_CONC:-1 16}
cp_concurrencies=${WIRE_CP_CONC:-1 8}
pin=${WIRE_PIN:-1}
work=$out/work

if [ "${WIRE_INSIDE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "run as root (private network namespace)" >&2; exit 1; }
  for tool in wrk nginx minidlnad rygel dbus-daemon taskset unshare ip curl /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "$tool missing (apt-get install wrk nginx-light minidlna rygel)" >&2; exit 1; }
  done
  for file in bin/chd bin/chd-client-app; do
    [ -x "$build/$file" ] || { echo "no $build/$file: build first" >&2; exit 1; }
  done
  # Only an earlier result directory (or an empty one) is replaced.
  if [ -n "$(ls -A "$out" 2>/dev/null)" ] && [ ! -f "$out/env.txt" ]; then
    echo "$out holds something else than earlier results: choose another WIRE_OUT" >&2
    exit 1
  fi
  rm -rf "$out"
  mkdir -p "$work"
  export WIRE_INSIDE=1 WIRE_OUT="$out" WIRE_BUILD="$build"
  exec unshare --net -- "$0" "$@"
fi

# shellcheck source=servers.sh
source "$here/servers.sh"
has() { [[ " $sections " == *" $1 "* ]]; }
log() { echo "=== $(date +%T) $*"; }
wire() { /usr/bin/python3 "$here/wire.py" "$@"; }

trap stop_all_jobs EXIT
ip link set lo up
ip route add 224.0.0.0/4 dev lo
# A control point opens a connection per action and closes it itself: its
# ports wait in TIME_WAIT, and a few rounds would use up the default range.
echo "1024 65535" >/proc/sys/net/ipv4/ip_local_port_range
echo 1 >/proc/sys/net/ipv4/tcp_tw_reuse

describe_run() {
  {
    echo "host: $(nproc) CPUs, $(awk '/MemTotal/{print $2}' /proc/meminfo) KiB, kernel $(uname -r),$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2)"
    echo "chd: $(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo '?')$(git -C "$root" diff --quiet 2>/dev/null || echo ' (work tree modified)'), build $build, type $(awk -F= '/^CMAKE_BUILD_TYPE:/{print $2}' "$build/CMakeCache.txt" 2>/dev/null | grep . || echo 'RelWithDebInfo (the project default)')"
    echo "peers: $(nginx -v 2>&1 | cut -d/ -f2) nginx-light, minidlna $(dpkg-query -W -f '${Version}' minidlna), rygel $(dpkg-query -W -f '${Version}' rygel), libgupnp $(dpkg-query -W -f '${Version}' libgupnp-1.6-0), libsoup $(dpkg-query -W -f '${Version}' libsoup-3.0-0), wrk $(dpkg-query -W -f '${Version}' wrk)"
    echo "sections: $sections; wrk ${dur} s per row, $rounds rounds, connections: $concurrencies; pinning: $([ "$pin" = 1 ] && echo 'servers CPU 1, wrk CPU 0' || echo off)"
    echo "started: $(date +%FT%T)"
  } | tee "$out/env.txt"
}

# -- load -----------------------------------------------------------------------

# One target per line: label, URL, SOAP action ("-" for a GET), body file ("-"),
# server pids joined by "+", close (1: a new connection per request).
add_target() {  # targets_file label url soapaction body pids close
  local file=$1
  shift
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$@" >>"$file"
}

soap_target() {  # targets label desc_url service_type_prefix action pids [NAME=VALUE...]: smoke-called once
  local targets=$1 label=$2 desc=$3 type=$4 action=$5 pids=$6 url body
  shift 6
  # The version is the device's own: Rygel offers ContentDirectory:3 where minidlna has :1.
  read -r type url < <(wire services "$desc" | awk -F'\t' -v t="$type" 'index($1, t) == 1 {print $1, $2; exit}') || true
  [ -n "$url" ] || { echo "$label: $desc has no service $4" >&2; return 1; }
  body=$work/body-$label.xml
  wire body "$type" "$action" "$@" >"$body"
  if ! wire call "$url" "$type" "$action" "$body" >"$out/smoke-$label.txt"; then
    echo "$label: smoke call failed:" >&2
    head -20 "$out/smoke-$label.txt" >&2
    return 1
  fi
  echo "$label: $(head -1 "$out/smoke-$label.txt")"
  add_target "$targets" "$label" "$url" "$type#$action" "$body" "$pids" 0
}

get_target() {  # targets label url pids close
  local answer
  answer=$(curl -s --max-time 5 -o /dev/null -w '%{http_code} %{size_download}' "$3")
  [ "${answer%% *}" = 200 ] || { echo "$2: GET $3 answered $answer" >&2; return 1; }
  echo "$2: HTTP $answer bytes"
  add_target "$1" "$2" "$3" - - "$4" "$5"
}

wrk_load() {  # url soapaction body close connections: one WIRE_RESULT line
  local url=$1 action=$2 body=$3 close=$4 c=$5
  [ "$action" = - ] && action=""
  [ "$body" = - ] && body=""
  WIRE_BODY_FILE=$body WIRE_SOAPACTION=$action WIRE_CLOSE=$close on_load_cpu timeout $((dur + 30)) \
    wrk -t1 -c"$c" -d"${dur}s" --timeout 5s -s "$here/wire.lua" "$url" 2>&1 | grep '^WIRE_RESULT' || true
}

cp_load() {  # desc service_type action connections [NAME=VALUE...]: one WIRE_RESULT line
  local desc=$1 type=$2 action=$3 c=$4
  shift 4
  on_load_cpu timeout $((dur + 40)) /usr/bin/python3 "$here/wire.py" cploop "$desc" "$type" "$action" "$dur" "$c" \
    "$@" 2>>"$work/cploop.log" | grep '^WIRE_RESULT' || tail -n 3 "$work/cploop.log" >&2
}

measure() {  # tsv label pids connections round -- load command...: one row of the tsv
  local tsv=$1 label=$2 pids=$3 c=$4 round=$5 line own foreign kv
  shift 6
  wire cpu snap "$work/cpu.snap" "$pids"
  line=$("$@")
  read -r own foreign < <(wire cpu delta "$work/cpu.snap" "$pids")
  if [ -z "$line" ]; then
    echo "$label c=$c: wrk gave no result" >&2
    return 0
  fi
  local -A r=()
  for kv in ${line#WIRE_RESULT }; do r[${kv%%=*}]=${kv#*=}; done
  local errors="${r[err_connect]}/${r[err_read]}/${r[err_write]}/${r[err_status]}/${r[err_timeout]}"
  local per_response=$((r[bytes] / (r[requests] > 0 ? r[requests] : 1)))
  [ -s "$tsv" ] || printf 'label\tconc\tround\trps\tp50_us\tp90_us\tp99_us\tmax_us\trequests\terrors_c/r/w/s/t\tbytes_per_resp\tserver_cpu_pct\tforeign_cpu_pct\twhen\n' >"$tsv"
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$label" "$c" "$round" "${r[rps]}" "${r[p50_us]}" \
    "${r[p90_us]}" "${r[p99_us]}" "${r[max_us]}" "${r[requests]}" "$errors" "$per_response" "$own" "$foreign" \
    "$(date +%FT%T)" >>"$tsv"
  printf '%-26s c=%-2s round %s: %9s req/s  p50 %5s us  p99 %6s us  errors %s  %s B/resp  server CPU %s%%  foreign CPU %s%%\n' \
    "$label" "$c" "$round" "${r[rps]}" "${r[p50_us]}" "${r[p99_us]}" "$errors" "$per_response" "$own" "$foreign"
}

load_section() {  # name targets_file: rounds interleaved over all targets and connection counts
  local name=$1 targets=$2 round label url action body pids close c
  for round in $(seq "$rounds"); do
    log "$name round $round/$rounds"
    while IFS=$'\t' read -r label url action body pids close; do
      for c in $concurrencies; do
        measure "$out/$name.tsv" "$label" "$pids" "$c" "$round" -- wrk_load "$url" "$action" "$body" "$close" "$c"
      done
    done <"$targets"
  done
}

# One control point target per line: label, description URL, service type, action,
# server pids, then the action's NAME=VALUE arguments.
cp_target() {  # targets label desc service_type_prefix action pids [NAME=VALUE...]
  local targets=$1 label=$2 desc=$3 type=$4 action=$5 pids=$6
  shift 6
  read -r type _ < <(wire services "$desc" | awk -F'\t' -v t="$type" 'index($1, t) == 1 {print $1, $2; exit}') || true
  [ -n "$type" ] || { echo "$label: $desc has no service $4" >&2; return 1; }
  (IFS=$'\t'; echo "$label	$desc	$type	$action	$pids	$*") >>"$targets"
}

cp_section() {  # targets_file: rounds interleaved over the control point targets and call counts
  local targets=$1 round label desc type action pids c
  local -a args
  for round in $(seq "$rounds"); do
    log "cp round $round/$rounds"
    while IFS=$'\t' read -r -a fields; do
      label=${fields[0]} desc=${fields[1]} type=${fields[2]} action=${fields[3]} pids=${fields[4]}
      args=("${fields[@]:5}")
      for c in $cp_concurrencies; do
        measure "$out/cp.tsv" "$label" "$pids" "$c" "$round" -- cp_load "$desc" "$type" "$action" "$c" "${args[@]}"
      done
    done <"$targets"
  done
}

profile_target() {  # label: perf samples of the target's server while wrk loads it with 16 connections
  local label=$1 url action body pids close
  IFS=$'\t' read -r _ url action body pids close < <(awk -F'\t' -v l="$label" '$1 == l' "$out"/targets-*.tsv | head -1) ||
    true
  [ -n "$url" ] || return 0  # not a target of the sections run
  perf record -F 999 -g -p "${pids%%+*}" -o "$work/perf-$label.data" -- sleep "$dur" >/dev/null 2>&1 &
  local recorder=$!
  WIRE_BODY_FILE=$body WIRE_SOAPACTION=$action WIRE_CLOSE=$close on_load_cpu timeout $((dur + 30)) \
    wrk -t1 -c16 -d"${dur}s" --timeout 5s -s "$here/wire.lua" "$url" >/dev/null 2>&1 || true
  wait "$recorder" || true
  perf report -i "$work/perf-$label.data" --stdio --no-children --sort dso,symbol --percent-limit 1 \
    2>/dev/null | grep -v '^$' | head -120 >"$out/perf-$label.txt" || true
  echo "profile: $out/perf-$label.txt"
}

WHOLE_TREE="<ContentPathList><ContentPath>/vsp/</ContentPath></ContentPathList>"

minidlna_clips() {  # the object id of minidlna's folder of 24 clips, once it has scanned it
  local cds=urn:schemas-upnp-org:service:ContentDirectory:1 control clips=""
  control=$(wire services "http://127.0.0.1:$MINIDLNA_PORT/rootDesc.xml" | awk -F'\t' -v t=$cds '$1 == t {print $2; exit}')
  for _ in $(seq 20); do clips=$(wire container "$control" "$cds" Clips24) && break; sleep 1; done
  [ -n "$clips" ] || { echo "minidlna does not show the folder Clips24" >&2; exit 1; }
  echo "$clips"
}

# -- sections -------------------------------------------------------------------

describe_run
write_chd_config
chd_env
start_bus

if has startup; then
  log "startup: ${WIRE_STARTS:-10} starts"
  starter=("${CHD_ENV[@]}" "$build/bin/chd")
  [ "$pin" = 1 ] && starter=(taskset -c 1 "${starter[@]}")
  wire startup "$out/startup.tsv" "${WIRE_STARTS:-10}" "$CHD_PORT" "$work/chd/chd-startup.log" -- "${starter[@]}"
fi

if has idle || has soap || has getvalues || has cp; then
  log "starting chd, the client application, nginx, minidlna and Rygel"
  start_chd
  start_nginx
  start_minidlna
  start_rygel
  echo "chd ${PID[chd]} at $CHD_DESC; Rygel ${PID[rygel]} at $RYGEL_DESC; minidlna ${PID[minidlna]}; nginx ${PID[nginx]}"
fi

idle_groups() {  # suffix
  echo "chd$1=${PID[chd]} minidlna$1=${PID[minidlna]} rygel$1=${PID[rygel]} nginx$1=${PID[nginx]}" \
    "client-app$1=${PID[client-app]} dbus-daemon$1=${PID[bus]}"
}

if has idle; then
  log "idle: settling ${WIRE_SETTLE:-20} s, then a ${WIRE_IDLE:-60} s window"
  sleep "${WIRE_SETTLE:-20}"
  # shellcheck disable=SC2046
  wire idle "$out/idle.tsv" "$out/idle_threads.tsv" "${WIRE_IDLE:-60}" $(idle_groups "")
fi

if has soap; then
  log "soap: targets"
  targets=$out/targets-soap.tsv
  : >"$targets"
  soap_target "$targets" chd-GetCurrentConfigurationVersion "$CHD_DESC" "$CM_TYPE" \
    GetCurrentConfigurationVersion "${PID[chd]}"
  soap_target "$targets" chd-GetSupportedDataModels "$CHD_DESC" "$CM_TYPE" GetSupportedDataModels "${PID[chd]}"
  soap_target "$targets" rygel-GetSystemUpdateID "$RYGEL_DESC" urn:schemas-upnp-org:service:ContentDirectory: \
    GetSystemUpdateID "${PID[rygel]}"
  # The same calls with a connection per request: what the connection costs each stack.
  awk -F'\t' -v OFS='\t' '$1 == "rygel-GetSystemUpdateID" || $1 == "chd-GetCurrentConfigurationVersion" \
    {$1 = $1 "-close"; $6 = 1; print}' "$targets" >"$work/close.tsv"
  cat "$work/close.tsv" >>"$targets"
  get_target "$targets" nginx-10k-keepalive "http://127.0.0.1:$NGINX_PORT/10k.xml" "${PID[nginx]}" 0
  get_target "$targets" nginx-10k-close "http://127.0.0.1:$NGINX_PORT/10k.xml" "${PID[nginx]}" 1
  load_section soap "$targets"
fi

if has getvalues; then
  log "getvalues: targets"
  targets=$out/targets-getvalues.tsv
  : >"$targets"
  soap_target "$targets" chd-GetValues-whole-tree "$CHD_DESC" "$CM_TYPE" GetValues "${PID[chd]}" \
    "Parameters=$WHOLE_TREE"
  awk -F'\t' -v OFS='\t' '$1 == "chd-GetValues-whole-tree" {$1 = $1 "-close"; $6 = 1; print}' "$targets" \
    >"$work/close.tsv"
  cat "$work/close.tsv" >>"$targets"
  clips=$(minidlna_clips)
  soap_target "$targets" minidlna-Browse24 "http://127.0.0.1:$MINIDLNA_PORT/rootDesc.xml" \
    urn:schemas-upnp-org:service:ContentDirectory:1 Browse \
    "${PID[minidlna]}" "ObjectID=$clips" BrowseFlag=BrowseDirectChildren "Filter=*" StartingIndex=0 \
    RequestedCount=0 SortCriteria=
  get_target "$targets" nginx-10k-keepalive "http://127.0.0.1:$NGINX_PORT/10k.xml" "${PID[nginx]}" 0
  get_target "$targets" nginx-10k-close "http://127.0.0.1:$NGINX_PORT/10k.xml" "${PID[nginx]}" 1
  load_section getvalues "$targets"
fi

if has cp; then
  log "cp: targets"
  targets=$out/targets-cp.tsv
  : >"$targets"
  cp_target "$targets" cp-chd-GetCurrentConfigurationVersion "$CHD_DESC" "$CM_TYPE" GetCurrentConfigurationVersion \
    "${PID[chd]}"
  cp_target "$targets" cp-rygel-GetSystemUpdateID "$RYGEL_DESC" urn:schemas-upnp-org:service:ContentDirectory: \
    GetSystemUpdateID "${PID[rygel]}"
  cp_target "$targets" cp-chd-GetValues-whole-tree "$CHD_DESC" "$CM_TYPE" GetValues "${PID[chd]}" \
    "Parameters=$WHOLE_TREE"
  cp_target "$targets" cp-minidlna-Browse24 "http://127.0.0.1:$MINIDLNA_PORT/rootDesc.xml" \
    urn:schemas-upnp-org:service:ContentDirectory:1 Browse "${PID[minidlna]}" "ObjectID=$(minidlna_clips)" \
    BrowseFlag=BrowseDirectChildren "Filter=*" StartingIndex=0 RequestedCount=0 SortCriteria=
  cp_section "$targets"
fi

if has soap || has getvalues || has cp; then
  log "footprint after the load"
  # shellcheck disable=SC2046
  wire idle "$out/idle.tsv" "$out/idle_threads.tsv" 10 $(idle_groups -afterload)
  if [ "${WIRE_PERF:-0}" != 0 ] && command -v perf >/dev/null; then
    log "profiles under load"
    profile_target chd-GetCurrentConfigurationVersion
    profile_target chd-GetValues-whole-tree
    if [ "${WIRE_PERF}" = peers ]; then
      profile_target rygel-GetSystemUpdateID-close
      profile_target minidlna-Browse24
    fi
  fi
fi

stop_all_jobs
trap - EXIT
grep -c . "$work/chd/chd.log" | xargs printf 'chd log lines during the run: %s\n' | tee -a "$out/env.txt"
/usr/bin/python3 "$here/summarize.py" "$out" >/dev/null
log "done: $out/summary.md"
