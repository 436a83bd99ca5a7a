#!/bin/bash
# Static checks. "format": clang-format must leave every C++ file unchanged.
# "tidy": clang-tidy with warnings as errors on the daemon and host sources.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
what=${1:-format}
files=$(git ls-files -co --exclude-standard -- '*.cpp' '*.h' | grep -vE '^(build|third_party)/')
case "$what" in
  format)
    # shellcheck disable=SC2086
    clang-format --dry-run -Werror $files
    ;;
  tidy)
    dir=${2:-$root/build}
    out=$(mktemp)
    grep -E '^(app|host)/.*\.cpp$' <<<"$files" |
      xargs -P "$(nproc)" -n 4 clang-tidy -p "$dir" --quiet 2>&1 | grep -vE '^[0-9]+ warnings? generated\.$' | tee "$out"
    status=${PIPESTATUS[1]}
    # clang-tidy reports a .clang-tidy it cannot parse and goes on with defaults, exiting 0.
    if grep -qE 'Error parsing|error: ' "$out"; then status=1; fi
    rm -f "$out"
    [ "$status" -eq 0 ]
    ;;
  *) echo "usage: $0 [format|tidy [build-dir]]" >&2; exit 2 ;;
esac
