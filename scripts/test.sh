#!/bin/bash
# Sets up, builds and runs every test: formatting, clang-tidy, the normal
# build's whole suite (unit, integration, soak, end-to-end), the unit and
# integration tests again under AddressSanitizer+UndefinedBehaviorSanitizer
# and under ThreadSanitizer, and short fuzz runs. Ends with
# "Total: N passed, N failed".
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/setup.sh" || exit 1

passed=0
failed=0
failures=()

count() {  # name status
  if [ "$2" -eq 0 ]; then passed=$((passed + 1)); else failed=$((failed + 1)); failures+=("$1"); fi
}

# Adds the counts of one ctest run to the totals.
run_ctest() {  # label dir ctest-args...
  local label=$1 dir=$2
  shift 2
  local log
  log=$(mktemp)
  echo "=== ctest ($label): $*"
  ctest --test-dir "$dir" --output-on-failure --no-tests=error "$@" 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  local line total bad
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
  if [ -n "$line" ]; then
    bad=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
    if [ "$bad" -ne 0 ]; then
      # The names, so that the last lines of a long log say which tests failed.
      local names
      names=$(sed -n '/The following tests FAILED:/,$p' "$log" | sed -nE 's/^[[:space:]]+[0-9]+ - ([^ ]+).*/\1/p' | paste -sd, -)
      failures+=("ctest $label (${names:-see above})")
    fi
  fi
  if [ "$rc" -ne 0 ] && { [ -z "$line" ] || [ "$bad" -eq 0 ]; }; then
    failed=$((failed + 1)); failures+=("ctest $label (exit $rc)")
  fi
  rm -f "$log"
}

echo "=== format"
"$root/scripts/lint.sh" format
count "clang-format" $?

echo "=== build (normal)"
if ! "$root/scripts/build.sh" normal -DCHD_BUILD_TESTS=ON -DCHD_BUILD_BENCH=ON; then
  echo "build failed"; echo "0 passed, 1 failed"; exit 1
fi
echo "=== clang-tidy"
"$root/scripts/lint.sh" tidy "$root/build"
count "clang-tidy" $?

run_ctest normal "$root/build" -j2 --timeout 900

echo "=== build (asan+ubsan)"
if "$root/scripts/build.sh" asan -DCHD_BUILD_TESTS=ON; then
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    LSAN_OPTIONS=suppressions=$root/tests/lsan.supp \
    run_ctest asan "$root/build-asan" -j2 -L 'unit|integration' --timeout 900
else
  count "build asan" 1
fi

echo "=== build (tsan)"
if "$root/scripts/build.sh" tsan -DCHD_BUILD_TESTS=ON; then
  count "build tsan" 0
  G_SLICE=always-malloc TSAN_OPTIONS="halt_on_error=1 report_signal_unsafe=0 suppressions=$root/tests/tsan.supp" \
    run_ctest tsan "$root/build-tsan" -j2 -L '^(unit|integration)$' --timeout 900
else
  count "build tsan" 1
fi

if [ -x "$root/fuzz/run_fuzz.sh" ]; then
  echo "=== fuzz (short)"
  "$root/fuzz/run_fuzz.sh" "${CHD_FUZZ_SECONDS:-10}"
  count "fuzz" $?
fi

echo
if [ ${#failures[@]} -gt 0 ]; then
  echo "failed: ${failures[*]}"
fi
echo "Total: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
