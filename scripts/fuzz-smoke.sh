#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each briefly on a corpus seeded from the test
# fixtures. A crash fails the run and leaves the input under build-fuzz/findings/.
# Usage: scripts/fuzz-smoke.sh [seconds per target, default 15]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-15}"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
mkdir -p build-fuzz/findings
for target in build-fuzz/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="build-fuzz/corpus/$name"
  mkdir -p "$corpus"
  case "$name" in
    fuzz_session_file) cp -n tests/fixtures/verdane/sessions/*.json tests/fixtures/verdane/agents/*/sessions/*.json "$corpus"/ 2>/dev/null || true ;;
  esac
  echo "fuzz: $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -artifact_prefix=build-fuzz/findings/ "$corpus" 2>&1 | tail -n 1
done
