#!/usr/bin/env bash
# Fails on a C++ source of the repository that clang-format would change.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || find src energy tools tests bench fuzz -name '*.cpp' -o -name '*.h')
if ! clang-format --dry-run --Werror $files; then
  echo "format: run 'clang-format -i' on the files above" >&2
  exit 1
fi
echo "format: $(echo "$files" | wc -w) files as .clang-format wants them"
