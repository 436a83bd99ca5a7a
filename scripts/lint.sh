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
    grep -E '^(app|host)/.*\.cpp$' <<<"$files" |
      xargs -P "$(nproc)" -n 4 clang-tidy -p "$dir" --quiet 2>&1 | grep -vE '^[0-9]+ warnings? generated\.$'
    # grep exits 1 when nothing is left to print; xargs' status is what counts.
    [ "${PIPESTATUS[1]}" -eq 0 ]
    ;;
  *) echo "usage: $0 [format|tidy [build-dir]]" >&2; exit 2 ;;
esac
