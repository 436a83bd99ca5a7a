#!/bin/bash
# The reliability scenarios at full scale, each against a fresh chd in a
# network namespace of its own (loopback only). The end-to-end tests run the
# same scenarios, shorter, in the test command; here they are given their
# full counts and print their figures. Every scenario is bounded in count and
# time. docs/reliability.md holds the figures of the last run.
#
# usage (as root): bench/reliability/run.sh [BUILD_DIR] [SCENARIO...]
#   scenarios: shutdown http soak gena store (default: all)
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
shift || true
scenarios=("$@")
[ ${#scenarios[@]} -gt 0 ] || scenarios=(shutdown http soak gena store)

netns() { CHD_BUILD_DIR=$build timeout "$1" "$root/tests/e2e/run_in_netns.sh" /usr/bin/python3 "${@:2}"; }

status=0
for scenario in "${scenarios[@]}"; do
  echo "=== $scenario ($(date -u +%FT%TZ))"
  case "$scenario" in
    # 30 SIGTERMs under load of every kind.
    shutdown) CHD_SIGTERM_ROUNDS=30 netns 900 "$root/tests/e2e/test_shutdown_under_load.py" ;;
    # 1,100 idle connections at RLIMIT_NOFILE=1024, 500 slow ones on each port,
    # four 50 MB bodies, an answer of 14 MB.
    http) CHD_IDLE_CONNECTIONS=1100 CHD_SLOW_CONNECTIONS=1000 netns 900 "$root/tests/e2e/test_http_limits.py" ;;
    # Ten minutes of mixed load at eight clients, sampled every 10 s.
    soak) CHD_SOAK_SECONDS=600 netns 900 "$root/tests/e2e/test_soak.py" ;;
    # 20,000 subscribe/unsubscribe cycles; 20,000 attempts at the cap.
    gena) netns 900 "$root/bench/reliability/gena.py" ;;
    # A 10 MB status value; 100,000 incidents.
    store) netns 900 "$root/bench/reliability/store_input.py" ;;
    *) echo "unknown scenario $scenario" >&2; status=2; continue ;;
  esac
  rc=$?
  echo "=== $scenario: exit $rc"
  [ "$rc" -eq 0 ] || status=1
done
exit "$status"
