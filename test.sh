#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole suite twice:
# a plain build, then AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")"
source ./scripts/deps.sh
kes_install_deps

jobs=${KES_JOBS:-2}

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" --timeout 300)
}

echo "== plain build =="
run_suite build
echo "== sanitizer build (address, undefined) =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DKES_SANITIZE=ON
