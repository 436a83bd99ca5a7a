#!/bin/bash
# Configures the daemon against the stub platform (CHD_PLATFORM=external) in a
# temporary directory, builds the executable and the stub's unit tests, checks
# that nothing of host/ or GUPnP got in, and runs the tests.
# Usage: build-and-test.sh SOURCE_DIR [cmake]
set -euo pipefail
source_dir=$1
cmake=${2:-cmake}
work=$(mktemp -d /tmp/chd-external-XXXXXX)
trap 'rm -rf "$work"' EXIT

"$cmake" -S "$source_dir" -B "$work" -G Ninja -DCHD_PLATFORM=external \
  -DCHD_EXTERNAL_PLATFORM_DIR="$source_dir/tests/stub_platform" -DCHD_BUILD_TESTS=ON >"$work/configure.log" ||
  { cat "$work/configure.log"; exit 1; }
"$cmake" --build "$work" --target chd stub_platform_tests -- -j2 >"$work/build.log" ||
  { tail -n 50 "$work/build.log"; exit 1; }

if grep -qE 'gupnp|gssdp|libsoup|/host/' "$work/build.ninja"; then
  echo "the external build uses host/ or GUPnP:" >&2
  grep -oE '[^ ]*(gupnp|gssdp|libsoup|/host/)[^ ]*' "$work/build.ninja" | sort -u | head >&2
  exit 1
fi
if readelf -d "$work/bin/chd" | grep -qE 'gupnp|soup|tolvane|glib'; then
  echo "the external chd links a host library" >&2
  exit 1
fi
"$work/bin/stub_platform_tests"
