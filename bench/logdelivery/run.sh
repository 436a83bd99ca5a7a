#!/bin/bash
# Log delivery throughput: one 1 GiB log file fetched over loopback from chd
# (its private port 80 and the UPnP stack's own HTTP port) and from nginx
# serving the same file with sendfile, side by side in one run; one client,
# then four at once. During the four-client runs the daemon's resident memory
# is sampled every 20 ms.
#
# usage: bench/logdelivery/run.sh [BUILD_DIR]     (as root; default BUILD_DIR: ./build)
# env:   BENCH_REPEATS=5   repeats per row (after one warm-up fetch)
#        BENCH_OUT=DIR     where results.tsv and summary.md go (default BUILD_DIR/bench-logdelivery)
#        BENCH_PIN=1       servers on CPU 1, curl on CPU 0 (0: no pinning)
#
# Everything runs in a private network namespace (only its own loopback); the
# log file lives on a tmpfs mounted only inside it; every server is started
# and stopped by its pid, every fetch is bounded by curl --max-time. Each row
# records the CPU that processes outside the namespace used meanwhile (the
# machine may be shared): rerun when it is high.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
out=${BENCH_OUT:-$build/bench-logdelivery}
repeats=${BENCH_REPEATS:-5}
pin=${BENCH_PIN:-1}

if [ "${CHD_BENCH_INSIDE:-}" != 1 ]; then
  [ "$(id -u)" -eq 0 ] || { echo "run as root (private network namespace)" >&2; exit 1; }
  [ -x "$build/bin/chd" ] || { echo "no $build/bin/chd: build first" >&2; exit 1; }
  command -v nginx >/dev/null || { echo "nginx missing: apt-get install nginx-light" >&2; exit 1; }
  mkdir -p "$out/work"
  export CHD_BENCH_INSIDE=1 BENCH_OUT="$out"
  exec unshare --net --mount --propagation private -- "$0" "$build"
fi

ip link set lo up
work=$out/work
mount -t tmpfs -o size=1400m chd-bench-logdelivery "$work"
www=$work/log
mkdir -p "$www" "$work/nginx/tmp"
file=$www/1g.bin
size=1073741824
nginx_port=18080
stack_port=18082
hz=$(getconf CLK_TCK)
pids=()

cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
  done
}
trap cleanup EXIT

server() { if [ "$pin" = 1 ]; then taskset -c 1 "$@"; else "$@"; fi; }
client() { if [ "$pin" = 1 ]; then taskset -c 0 "$@"; else "$@"; fi; }

wait_port() {  # port
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "nothing listens on port $1" >&2
  return 1
}

cpu_ticks() {  # pids: utime+stime of each, children reaped included
  local total=0 pid
  for pid in "$@"; do total=$((total + $(awk '{print $14+$15+$16+$17}' "/proc/$pid/stat"))); done
  echo "$total"
}
rss_kib() { awk '/^VmRSS:/{print $2}' "/proc/$1/status"; }

start_nginx() {
  cat >"$work/nginx/nginx.conf" <<CONF
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  client_body_temp_path $work/nginx/tmp; proxy_temp_path $work/nginx/tmp; fastcgi_temp_path $work/nginx/tmp;
  uwsgi_temp_path $work/nginx/tmp; scgi_temp_path $work/nginx/tmp;
  default_type application/octet-stream;
  server { listen 127.0.0.1:$nginx_port; root $www; }
}
CONF
  server nginx -c "$work/nginx/nginx.conf" -p "$work/nginx"
  wait_port "$nginx_port"
  nginx_master=$(cat "$work/nginx/nginx.pid")
  pids+=("$nginx_master")
  for _ in $(seq 50); do nginx_worker=$(pgrep -P "$nginx_master" | head -n 1) && break; sleep 0.1; done
}

start_chd() {
  cat >"$work/platform.conf" <<CONF
[platform]
chd_support=true
log_path=$www
log_chunking=true
ethernet_interface=lo
autoip_interface=
upnp_port=$stack_port

[statusstore]
bus=none

[settings]
file=$work/settings.conf
CONF
  # exec all the way down, so that $! is the daemon itself.
  if [ "$pin" = 1 ]; then set -- taskset -c 1 "$build/bin/chd"; else set -- "$build/bin/chd"; fi
  (CHD_PLATFORM_CONFIG="$work/platform.conf" TLCOM_COMPONENT_PATH="$build/lib" CHD_LOG_LEVEL=0 \
    exec "$@" 2>"$work/chd.log") &
  chd_pid=$!
  pids+=("$chd_pid")
  wait_port 80
  wait_port "$stack_port"
}

results=$out/results.tsv
printf 'label\tclients\trep\tmb_per_s\tseconds\tbytes\tserver_cpu_s_per_gib\trss_before_kib\trss_peak_kib\tforeign_cpu_pct\n' \
  >"$results"

row() { (IFS=$'\t'; echo "$*") >>"$results"; }
foreign_snap() { python3 "$here/foreign_cpu.py" snap "$work/foreign.snap"; }
foreign_delta() { python3 "$here/foreign_cpu.py" delta "$work/foreign.snap"; }

one_client() {  # label url server-pids...
  local label=$1 url=$2 rep line bytes seconds t0 t1
  shift 2
  client curl -s -o /dev/null --max-time 120 "$url"  # warm-up
  for rep in $(seq "$repeats"); do
    foreign_snap
    t0=$(cpu_ticks "$@")
    line=$(client curl -s -o /dev/null --max-time 120 -w '%{size_download} %{time_total}' "$url")
    t1=$(cpu_ticks "$@")
    read -r bytes seconds <<<"$line"
    [ "$bytes" = "$size" ] || echo "$label: short download ($bytes bytes)" >&2
    row "$label" 1 "$round.$rep" "$(awk -v b="$bytes" -v s="$seconds" 'BEGIN{printf "%.0f", b/s/1e6}')" "$seconds" "$bytes" \
      "$(awk -v d=$((t1 - t0)) -v hz="$hz" -v b="$bytes" 'BEGIN{printf "%.3f", (d/hz)/(b/1073741824)}')" - - \
      "$(foreign_delta)"
  done
}

four_clients() {  # label url rss-pid server-pids...
  local label=$1 url=$2 rss_pid=$3 rep i t0 t1 c0 c1 before peak bytes sampler curls
  shift 3
  for rep in $(seq "$repeats"); do
    curls=()
    before=$(rss_kib "$rss_pid")
    (while kill -0 "$rss_pid" 2>/dev/null; do rss_kib "$rss_pid"; sleep 0.02; done) >"$work/rss.samples" &
    sampler=$!
    foreign_snap
    c0=$(cpu_ticks "$@")
    t0=$(date +%s.%N)
    for i in 1 2 3 4; do
      client curl -s -o /dev/null --max-time 120 -w '%{size_download}\n' "$url" >"$work/size.$i" &
      curls+=($!)
    done
    wait "${curls[@]}" || true
    t1=$(date +%s.%N)
    c1=$(cpu_ticks "$@")
    kill "$sampler" 2>/dev/null || true
    wait "$sampler" 2>/dev/null || true
    peak=$(sort -n "$work/rss.samples" | tail -n 1)
    bytes=$(cat "$work"/size.[1-4] | awk '{s+=$1} END{printf "%.0f", s}')
    [ "$bytes" = $((4 * size)) ] || echo "$label: short downloads ($bytes bytes)" >&2
    row "$label" 4 "$round.$rep" "$(awk -v b="$bytes" -v a="$t0" -v z="$t1" 'BEGIN{printf "%.0f", b/(z-a)/1e6}')" \
      "$(awk -v a="$t0" -v z="$t1" 'BEGIN{printf "%.3f", z-a}')" "$bytes" \
      "$(awk -v d=$((c1 - c0)) -v hz="$hz" -v b="$bytes" 'BEGIN{printf "%.3f", (d/hz)/(b/1073741824)}')" \
      "$before" "${peak:-0}" "$(foreign_delta)"
  done
}

echo "creating the 1 GiB log file"
head -c "$size" /dev/urandom >"$file"
start_nginx
start_chd
echo "chd pid $chd_pid, rss $(rss_kib "$chd_pid") KiB at rest; nginx pids $nginx_master $nginx_worker"

chd_path=$file
for round in 1 2; do
  # Two interleaved rounds, so that a disturbance of this shared machine hits every server alike.
  one_client nginx-sendfile "http://127.0.0.1:$nginx_port/1g.bin" "$nginx_master" "$nginx_worker"
  one_client chd-port80 "http://127.0.0.1:80$chd_path" "$chd_pid"
  one_client chd-stackport "http://127.0.0.1:$stack_port$chd_path" "$chd_pid"
  four_clients nginx-sendfile "http://127.0.0.1:$nginx_port/1g.bin" "$nginx_worker" "$nginx_master" "$nginx_worker"
  four_clients chd-port80 "http://127.0.0.1:80$chd_path" "$chd_pid" "$chd_pid"
  four_clients chd-stackport "http://127.0.0.1:$stack_port$chd_path" "$chd_pid" "$chd_pid"
  [ "$round" = 1 ] && echo "round 1 done"
done

python3 "$here/summarize.py" "$results" >"$out/summary.md"
cat "$out/summary.md"
