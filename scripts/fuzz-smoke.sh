#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while from its checked-in seed
# corpus (fuzz/corpus/<target>/). Every seed runs first, so an input that once crashed a target
# and was kept there is a regression case. New interesting inputs go to build-fuzz/corpus/; a
# crash fails the run and leaves the input under build-fuzz/findings/: once fixed, keep it as
# fuzz/corpus/<target>/crash-<what>.
# Usage: scripts/fuzz-smoke.sh [seconds per target, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
mkdir -p build-fuzz/findings
status=0
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  seeds="fuzz/corpus/$name"
  corpus="build-fuzz/corpus/$name"
  mkdir -p "$corpus"
  if [ ! -d "$seeds" ]; then
    echo "fuzz: $name has no seed corpus at $seeds" >&2
    exit 1
  fi
  echo "fuzz: $name for ${seconds}s from $(ls "$seeds" | wc -l) seeds"
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix=build-fuzz/findings/ "$corpus" "$seeds" >"build-fuzz/$name.log" 2>&1; then
    tail -n 30 "build-fuzz/$name.log" >&2
    echo "fuzz: $name failed; the input is in build-fuzz/findings/ (keep it in $seeds once fixed)" >&2
    status=1
  else
    tail -n 1 "build-fuzz/$name.log"
  fi
done
exit "$status"
