#!/bin/bash
# Cross-builds the daemon and its unit tests for arm64 with Debian's cross
# toolchain and multiarch -dev packages, then runs the unit tests under
# qemu-user. One command on a fresh Debian 12 (amd64) machine, as root:
#
#   scripts/cross-arm64.sh [build dir]      (default: build-arm64)
#
# Set CHD_CROSS_SKIP_APT=1 when the packages are already there, and
# CHD_CROSS_TEST_REGEX to run a subset of the unit tests (a ctest -R regex).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build-arm64}
triplet=aarch64-linux-gnu

# What the build needs for the target, installable through apt. In Debian 12
# the -dev packages of libsoup 3, GSSDP and GUPnP cannot be installed for a
# foreign architecture: libsoup-3.0-dev pulls libsysprof-4-dev, whose GTK
# dependencies end in gobject-introspection, which is not multiarch. Their
# runtime libraries install fine, so only the headers and pkg-config files of
# those four packages are unpacked into the build directory (see below).
TARGET_DEV=(
  libglib2.0-dev libxml2-dev libjsoncpp-dev libtinyxml-dev libgtest-dev libgmock-dev
  uuid-dev libsqlite3-dev libpsl-dev libbrotli-dev zlib1g-dev libnghttp2-dev
  libsoup-3.0-0 libgssdp-1.6-0 libgupnp-1.6-0
)
UNPACKED_DEV=(libsoup-3.0-dev libgssdp-1.6-dev libgupnp-1.6-dev libsysprof-4-dev)
# What runs on the build machine.
# qemu-user-binfmt lets the kernel start arm64 executables directly where
# systemd registers it: the death tests re-execute their own executable.
BUILD_TOOLS=(crossbuild-essential-arm64 qemu-user qemu-user-binfmt cmake ninja-build pkg-config dbus-daemon file)
libdir=/usr/lib/${triplet}
overlay=$dir/arm64-dev

install_packages() {
  if [ "${CHD_CROSS_SKIP_APT:-0}" = 1 ]; then
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    echo "cross-arm64: installing packages needs root (or CHD_CROSS_SKIP_APT=1)" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  dpkg --add-architecture arm64
  apt-get update -qq
  apt-get install -y -qq -o DPkg::Lock::Timeout=600 --no-install-recommends \
    "${BUILD_TOOLS[@]}" "${TARGET_DEV[@]/%/:arm64}"
}

# Unpacks the headers and .pc files of UNPACKED_DEV under $overlay, points the
# .pc files there and the development symlinks at the installed libraries.
unpack_dev_packages() {
  rm -rf "$overlay" && mkdir -p "$overlay/debs"
  (cd "$overlay/debs" && apt-get download "${UNPACKED_DEV[@]/%/:arm64}")
  for deb in "$overlay"/debs/*.deb; do
    dpkg-deb -x "$deb" "$overlay"
  done
  sed -i "s|^prefix=/usr\$|prefix=$overlay/usr|" "$overlay$libdir"/pkgconfig/*.pc
  for link in "$overlay$libdir"/*.so; do
    [ -L "$link" ] && ln -sf "$libdir/$(readlink "$link")" "$link"
  done
}

write_toolchain() {
  cat >"$dir/toolchain-arm64.cmake" <<EOF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# Test discovery and ctest start the arm64 test executables through qemu. They
# run on the arm64 multiarch libraries (/lib/${triplet}), which the -dev
# packages brought in: the cross toolchain's own libc under /usr/${triplet} is
# an older build, and mixing the two (qemu -L) hangs at the first thread.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
EOF
}

build() {
  # pkg-config must answer with the arm64 libraries only.
  export PKG_CONFIG_LIBDIR=$overlay$libdir/pkgconfig:$libdir/pkgconfig:/usr/share/pkgconfig
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$dir/toolchain-arm64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCHD_BUILD_TESTS=ON >"$dir/configure.log"
  ninja -C "$dir" -j "$(nproc)"
  file "$dir/bin/chd"
}

run_unit_tests() {
  unset QEMU_LD_PREFIX
  ctest --test-dir "$dir" -L unit -R "${CHD_CROSS_TEST_REGEX:-.}" --output-on-failure -j "$(nproc)" \
    --timeout 300 | tee "$dir/unit-tests.log" | tail -n 30
}

install_packages
mkdir -p "$dir"
unpack_dev_packages
write_toolchain
build
run_unit_tests
