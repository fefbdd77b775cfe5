#!/usr/bin/env bash
# Builds (installing what is missing) and runs every test: unit tests, the client and supervisor
# against the engine simulator, and the command-line integration tests.
# Usage: scripts/test.sh [ctest arguments], e.g. scripts/test.sh -L unit
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
ctest --preset default -j2 --output-on-failure "$@"
