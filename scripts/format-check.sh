#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it.
# Usage: scripts/format-check.sh [--fix]
set -euo pipefail
cd "$(dirname "$0")/.."
formatter=$(command -v clang-format-14 || command -v clang-format)
mapfile -t files < <(git ls-files '*.cpp' '*.hpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
  "$formatter" -i "${files[@]}"
  exit 0
fi
if ! "$formatter" --dry-run --Werror "${files[@]}"; then
  echo "format-check: run scripts/format-check.sh --fix" >&2
  exit 1
fi
echo "format-check: ${#files[@]} files formatted"
