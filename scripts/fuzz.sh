#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a bounded time.
#   scripts/fuzz.sh            every target, 15 s each (what test.sh runs)
#   scripts/fuzz.sh 3600 NAME  one target for an hour: the longer run
# KES_FUZZ_DIR names the build folder (build-fuzz by default; test.sh uses its sanitizer build).
# New inputs go to a scratch folder; the seeds in fuzz/corpus/NAME are only read.
# A crash leaves its input in <build folder>/findings: add it to fuzz/corpus/NAME once fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-15}
only=${2:-}
dir=${KES_FUZZ_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$dir" -DKES_FUZZ=ON -DKES_SANITIZE=ON >/dev/null
targets=()
for src in fuzz/*.cpp; do
  name=$(basename "$src" .cpp)
  [ -n "$only" ] && [ "$name" != "$only" ] && continue
  targets+=("$name")
done
[ ${#targets[@]} -eq 0 ] && { echo "no fuzz targets"; exit 0; }
cmake --build "$dir" -j"${KES_JOBS:-2}" --target "${targets[@]/#/fuzz_}"
mkdir -p "$dir/findings"
for name in "${targets[@]}"; do
  scratch=$(mktemp -d)
  mkdir -p "fuzz/corpus/$name"
  echo "== fuzz_$name for ${seconds}s =="
  log=$dir/findings/$name.log
  set +e
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1 \
    "$dir/bin/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$dir/findings/${name}-" \
    "$scratch" "fuzz/corpus/$name" >"$log" 2>&1
  status=$?
  set -e
  grep -E "DONE|ERROR|SUMMARY" "$log" | tail -5 || true
  rm -rf "$scratch"
  [ "$status" -eq 0 ] || { echo "fuzz_$name found a fault (status $status): see $dir/findings"; exit 1; }
done
