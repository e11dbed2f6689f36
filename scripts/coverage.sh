#!/usr/bin/env bash
# Line and branch coverage of src/ and energy/ by the whole suite, from a build
# of its own (build-coverage/); counters are updated atomically, since the
# threads of the suite would otherwise spoil them. Installs gcovr with apt-get
# when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
source ./scripts/deps.sh
KES_DEBIAN_PACKAGES+=(gcovr)
kes_install_deps

dir=build-coverage
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
  -DCMAKE_EXE_LINKER_FLAGS="--coverage" >/dev/null
cmake --build "$dir" -j"${KES_JOBS:-2}"
find "$dir" -name '*.gcda' -delete
if ! (cd "$dir" && ctest -j"${KES_JOBS:-2}" --timeout 300 >ctest.log 2>&1); then
  tail -20 "$dir/ctest.log"
  echo "coverage: the suite failed, see $dir/ctest.log" >&2
  exit 1
fi
# the table per file goes to build-coverage/coverage.txt, the two totals to the screen
gcovr -r . --filter 'src/' --filter 'energy/' --exclude-unreachable-branches --exclude-throw-branches \
  --gcov-ignore-parse-errors --print-summary -o "$dir/coverage.txt" "$dir"
