#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite: a plain build and
# the .deb made from it, then AddressSanitizer + UndefinedBehaviorSanitizer, and
# every fuzz target (a clang build of the library alone) for a short bounded time.
# KES_TSAN=1 adds the threaded tests under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")"
source ./scripts/deps.sh
kes_install_deps

jobs=${KES_JOBS:-2}
# Tests whose subject runs threads of its own.
threaded='Thread|Timer|Line|Davis|Socket|Serial|Engine|Routing|HistorySystem|KesBusTool'

passed=0
run_suite() {
  local dir=$1 filter=$2; shift 2
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300 ${filter:+-R "$filter"}) | tee "$dir/ctest.log"
  local count
  count=$(sed -n 's/^100% tests passed, 0 tests failed out of \([0-9]*\)$/\1/p' "$dir/ctest.log")
  passed=$((passed + ${count:-0}))
}

echo "== format =="
./scripts/format_check.sh
echo "== plain build =="
run_suite build ""
echo "== package =="
./scripts/package_check.sh build
echo "== AddressSanitizer + UndefinedBehaviorSanitizer =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan "" -DKES_SANITIZE=ON
echo "== fuzzing =="
./scripts/fuzz.sh "${KES_FUZZ_SECONDS:-10}"
if [ "${KES_TSAN:-0}" = 1 ]; then
  echo "== ThreadSanitizer, threaded tests =="
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_suite build-tsan "$threaded" -DKES_TSAN=ON
fi
echo "suite: $passed passed, 0 failed"
