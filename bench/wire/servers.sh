# shellcheck shell=bash disable=SC2034,SC2154
# (run.sh sets pin, work, here and build, and reads the *_DESC results.)
# Servers of the over-the-wire benchmark: chd with its private bus and the
# host client application, and the peers it is compared with (nginx-light,
# minidlna, Rygel). Sourced by run.sh inside its private network namespace.
# Every server runs in the foreground of a background job so that its pid is
# known; every one listens on 127.0.0.1 (lo) only.

CHD_PORT=${WIRE_CHD_PORT:-49300}
NGINX_PORT=18080
MINIDLNA_PORT=8200
RYGEL_PORT=18201
DEVICE_TYPE=urn:schemas-upnp-org:device:ManageableDevice:1
CM_TYPE=urn:schemas-upnp-org:service:ConfigurationManagement:1
declare -A PID=()

on_load_cpu() { if [ "$pin" = 1 ]; then taskset -c 0 "$@"; else "$@"; fi; }

start_job() {  # name log command...: taskset and env exec the server, so $! is the server's own pid
  local name=$1 log=$2
  shift 2
  if [ "$pin" = 1 ]; then set -- taskset -c 1 "$@"; fi
  "$@" >>"$log" 2>&1 &
  PID[$name]=$!
}

stop_job() {  # name: TERM, then KILL after 5 s
  local pid=${PID[$1]:-}
  [ -n "$pid" ] || return 0
  kill -TERM "$pid" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  unset "PID[$1]"
}

stop_all_jobs() {  # the daemons before the bus they use
  local name
  for name in chd client-app rygel minidlna nginx bus; do stop_job "$name"; done
}

wait_port() {  # port seconds
  for _ in $(seq $(($2 * 10))); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "nothing listens on 127.0.0.1:$1" >&2
  return 1
}

# -- chd ----------------------------------------------------------------------

write_chd_config() {
  mkdir -p "$work/chd/log"
  cat >"$work/chd/platform.conf" <<CONF
[platform]
log_path=$work/chd/log
ethernet_interface=lo
autoip_interface=
upnp_port=$CHD_PORT

[statusstore]
bus=unix:path=$work/chd/bus

[settings]
file=$work/chd/settings.conf
CONF
  # Plausible values, so that the whole-tree answer carries text and not only empty elements.
  cat >"$work/chd/settings.conf" <<CONF
[settings]
Language=eng
ESN=0123456789ABCDEF
CamID=0001234567
NDSSerialNum=NDS-2231-99812
AP MAC Address=02:00:5e:10:00:01
MoreInfoWindow.ClientMacAddress=02:00:5e:10:00:02
TL date=2026-11-01
Client Connection Type=Ethernet
Client Connection Status=Common.Connected
Connection Speed=940
CHD Reporting Interval=3600
HDMI Plug=Common.True
HDCP Failure=Common.False
Last Remote Key=KEY_GUIDE
CONF
}

chd_env() {  # the command prefix that gives chd and its tools their platform
  CHD_ENV=(env CHD_PLATFORM_CONFIG="$work/chd/platform.conf" CHD_LOG_STDERR=1
    DBUS_SESSION_BUS_ADDRESS="unix:path=$work/chd/bus" TLCOM_COMPONENT_PATH="$build/lib")
}

start_bus() {
  rm -f "$work/chd/bus"
  start_job bus "$work/chd/dbus.log" dbus-daemon --session --nofork --nopidfile \
    --address="unix:path=$work/chd/bus"
  for _ in $(seq 50); do [ -S "$work/chd/bus" ] && return 0; sleep 0.1; done
  echo "the private bus did not come up" >&2
  return 1
}

start_chd() {  # starts chd and the client application; sets CHD_DESC
  chd_env
  start_job chd "$work/chd/chd.log" "${CHD_ENV[@]}" "$build/bin/chd"
  CHD_DESC=$(timeout 30 "$here/wire.py" locate "$DEVICE_TYPE" "$CHD_PORT" 20) || return 1
  local mark
  mark=$(stat -c %s "$work/chd/client-app.log" 2>/dev/null || echo 0)
  start_job client-app "$work/chd/client-app.log" "${CHD_ENV[@]}" "$build/bin/chd-client-app" \
    --bus "unix:path=$work/chd/bus" --settings "$work/chd/settings.conf"
  for _ in $(seq 100); do
    tail -c +"$((mark + 1))" "$work/chd/client-app.log" 2>/dev/null | grep -q "Published" && return 0
    sleep 0.1
  done
  echo "the client application did not publish its settings" >&2
  return 1
}

# -- peers ----------------------------------------------------------------------

make_www() {  # a 10240-byte XML document, the size of a whole-tree answer
  mkdir -p "$work/www"
  /usr/bin/python3 - "$work/www/10k.xml" <<'PY'
import sys
lines, n = ["<ParameterValueList>"], 0
while sum(len(l) + 1 for l in lines) < 10240 - 64:
    lines.append("    <Parameter><ParameterPath>/bench/Node%03d/LEAF</ParameterPath><Value>%d</Value></Parameter>" % (n, n * 31))
    n += 1
text = "\n".join(lines + ["</ParameterValueList>"]) + "\n"
open(sys.argv[1], "w").write(text + " " * (10240 - len(text)))
PY
}

start_nginx() {
  make_www
  mkdir -p "$work/nginx/tmp"
  cat >"$work/nginx/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  client_body_temp_path $work/nginx/tmp;
  proxy_temp_path $work/nginx/tmp;
  fastcgi_temp_path $work/nginx/tmp;
  uwsgi_temp_path $work/nginx/tmp;
  scgi_temp_path $work/nginx/tmp;
  default_type text/xml;
  server { listen 127.0.0.1:$NGINX_PORT; root $work/www; }
}
CONF
  start_job nginx "$work/nginx/stderr.log" nginx -c "$work/nginx/nginx.conf" -p "$work/nginx"
  wait_port "$NGINX_PORT" 10
}

make_media() {  # 24 short clips in one folder: Browse of it answers about as much as GetValues of the tree
  [ -s "$work/media/Clips24/clip24.wav" ] && return 0
  mkdir -p "$work/media/Clips24"
  /usr/bin/python3 - "$work/media/Clips24" <<'PY'
import math, struct, sys, wave
for i in range(24):
    clip = wave.open("%s/clip%02d.wav" % (sys.argv[1], i + 1), "wb")
    clip.setnchannels(1)
    clip.setsampwidth(2)
    clip.setframerate(8000)
    tone = 220 + 15 * i
    clip.writeframes(b"".join(struct.pack("<h", int(3000 * math.sin(2 * math.pi * tone * k / 8000))) for k in range(1600)))
    clip.close()
PY
}

start_minidlna() {  # Debian's defaults except: our media dir, lo only, state under $work, no inotify
  make_media
  mkdir -p "$work/minidlna/db" "$work/minidlna/log"
  cat >"$work/minidlna/minidlna.conf" <<CONF
media_dir=A,$work/media
port=$MINIDLNA_PORT
network_interface=lo
db_dir=$work/minidlna/db
log_dir=$work/minidlna/log
friendly_name=wire-bench minidlna
inotify=no
CONF
  # Daemonised as Debian runs it: the media scan then runs in a child that
  # exits, while in the foreground (-S) the server keeps the scanner's
  # libraries resident (29 MB instead of 9 MB).
  rm -f "$work/minidlna/minidlna.pid"
  local daemon=(minidlnad -r -f "$work/minidlna/minidlna.conf" -P "$work/minidlna/minidlna.pid")
  [ "$pin" = 1 ] && daemon=(taskset -c 1 "${daemon[@]}")
  "${daemon[@]}" >>"$work/minidlna/stderr.log" 2>&1
  for _ in $(seq 50); do [ -s "$work/minidlna/minidlna.pid" ] && break; sleep 0.1; done
  PID[minidlna]=$(cat "$work/minidlna/minidlna.pid")
  wait_port "$MINIDLNA_PORT" 20
}

start_rygel() {  # MediaExport only, no transcoding, simple media engine, lo only; sets RYGEL_DESC
  make_media
  mkdir -p "$work/rygel/config" "$work/rygel/cache" "$work/rygel/data"
  {
    printf '[general]\nipv6=false\nenable-transcoding=false\n'
    printf 'media-engine=librygel-media-engine-simple.so\ninterface=lo\nport=%s\nlog-level=*:2\n' "$RYGEL_PORT"
    printf 'allow-upload=false\nallow-deletion=false\nacl-fallback-policy=true\n'
    printf '[MediaExport]\nenabled=true\ntitle=wire-bench rygel\nuris=%s\n' "$work/media"
    printf 'extract-metadata=false\nmonitor-changes=true\nvirtual-folders=true\n'
    for plugin in Playbin Tracker Tracker3 LMS GstLaunch MPRIS External Ruih; do
      printf '[%s]\nenabled=false\n' "$plugin"
    done
  } >"$work/rygel/config/rygel.conf"
  start_job rygel "$work/rygel/rygel.log" env -u DBUS_SESSION_BUS_ADDRESS XDG_CONFIG_HOME="$work/rygel/config" \
    XDG_CACHE_HOME="$work/rygel/cache" XDG_DATA_HOME="$work/rygel/data" \
    rygel -c "$work/rygel/config/rygel.conf" -n lo -p "$RYGEL_PORT"
  RYGEL_DESC=$(timeout 40 "$here/wire.py" locate urn:schemas-upnp-org:device:MediaServer:1 "$RYGEL_PORT" 30)
}
