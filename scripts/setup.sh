#!/bin/bash
# Installs every Debian package the project needs to build, run and test.
# "scripts/setup.sh bench" also installs the peers and load tools that the
# benchmarks compare against. Idempotent; run as root on Debian 12.
# Set CHD_SETUP_SKIP_APT=1 to skip.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git
  libglib2.0-dev libgupnp-1.6-dev libgssdp-1.6-dev libsoup-3.0-dev
  libjsoncpp-dev libtinyxml-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format clang-tidy libclang-rt-14-dev
  dbus dbus-daemon dbus-bin
  python3 python3-gi gir1.2-gupnp-1.6 gir1.2-gssdp-1.6 gir1.2-glib-2.0 python3-jsonschema
  gssdp-tools iproute2 curl procps psmisc tar util-linux gdb
  systemd libxml2-utils dpkg-dev file lintian
)

BENCH_PACKAGES=(wrk nginx-light minidlna rygel smem linux-perf valgrind)
if [ "${1:-}" = bench ]; then
  PACKAGES+=("${BENCH_PACKAGES[@]}")
  # Installing the peers must not start their services (they would hold ports).
  if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d
    chmod +x /usr/sbin/policy-rc.d
  fi
fi

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ "${CHD_SETUP_SKIP_APT:-0}" != 1 ] && [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages (${missing[*]}); run as root" >&2
    exit 1
  fi
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
echo "setup: all packages present"
