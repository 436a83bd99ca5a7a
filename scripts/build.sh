#!/bin/bash
# Configures and builds one build directory.
# Usage: scripts/build.sh [normal|asan|tsan] [extra cmake args...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-normal}
shift || true
case "$kind" in
  normal) dir=$root/build; san="" ;;
  asan) dir=$root/build-asan; san=address ;;
  tsan) dir=$root/build-tsan; san=thread ;;
  *) echo "usage: $0 [normal|asan|tsan]" >&2; exit 2 ;;
esac
cmake -S "$root" -B "$dir" -G Ninja -DCHD_SANITIZE="$san" "$@" >/dev/null
ninja -C "$dir" -j "$(nproc)"
echo "$dir"
