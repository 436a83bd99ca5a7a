#!/bin/bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz and runs each for a bounded time.
# Usage: fuzz/run_fuzz.sh [seconds per target, default 30]
# A target <area>_fuzz_<name> starts from the seeds in fuzz/*/corpus/<name>
# and the dictionary (*.dict) next to them; new inputs go to a temporary
# directory, so the seeds in the tree stay as they are. Exit status 0 when
# every target ran its time without a finding.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
build=${CHD_FUZZ_BUILD_DIR:-$root/build-fuzz}
jobs=${CHD_FUZZ_JOBS:-2}

if ! command -v clang++ >/dev/null; then
  echo "run_fuzz: clang++ is missing (Debian package clang)" >&2
  exit 1
fi
if ! cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_COMPILER_LAUNCHER="$root/fuzz/clang_launcher.sh" -DCHD_SANITIZE=address -DCHD_BUILD_TESTS=OFF \
  -DCHD_BUILD_FUZZ=ON >/dev/null; then
  echo "run_fuzz: configure failed" >&2
  exit 1
fi
mapfile -t targets < <(ninja -C "$build" -t targets all | sed -nE 's/^([A-Za-z0-9]+_fuzz_[A-Za-z0-9_]+): phony$/\1/p' | sort -u)
if [ ${#targets[@]} -eq 0 ]; then
  echo "run_fuzz: no fuzz targets" >&2
  exit 1
fi
if ! ninja -C "$build" -j "$jobs" "${targets[@]}"; then
  echo "run_fuzz: build failed" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
for target in "${targets[@]}"; do
  binary=$(find "$build" -type f -name "$target" -perm -u+x | head -n 1)
  name=${target#*_fuzz_}
  seeds=$(find "$root/fuzz" -type d -path "*/corpus/$name" | head -n 1)
  args=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1)
  if [ -n "$seeds" ]; then
    dict=$(find "$(dirname "$(dirname "$seeds")")" -maxdepth 1 -name '*.dict' | head -n 1)
    [ -n "$dict" ] && args+=(-dict="$dict")
  fi
  mkdir -p "$work/$target"
  echo "=== $target ($seconds s)"
  # Only the daemon's error lines: the rest would only slow the runs down.
  (cd "$work" && CHD_LOG_LEVEL=0 ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$binary" "${args[@]}" "$work/$target" ${seeds:+"$seeds"} >"$work/$target.log" 2>&1)
  status=$?
  tail -n 20 "$work/$target.log"
  if [ "$status" -ne 0 ]; then
    echo "=== $target FAILED (exit $status); reproducers copied to $build/fuzz-findings"
    mkdir -p "$build/fuzz-findings" && cp "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-* \
      "$build/fuzz-findings/" 2>/dev/null
    failed=1
  fi
done
exit $failed
