#!/usr/bin/env bash
# Opens the desktop window against the engine simulator (or the engine named by VERD_BINARY).
# Without a display it says so and runs the headless desktop, `tamsel run`, instead.
# Usage: scripts/open-desktop.sh [tamsel-desktop options...]
set -euo pipefail
cd "$(dirname "$0")/.."
export VERD_BINARY="${VERD_BINARY:-$PWD/tools/verd-sim/verd-sim}"
window=./build/apps/tamsel-desktop/tamsel-desktop

if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "open-desktop: no display (neither DISPLAY nor WAYLAND_DISPLAY is set); running the headless desktop, tamsel run, instead" >&2
  exec ./build/apps/tamsel/tamsel run
fi
if [ ! -x "$window" ]; then
  echo "open-desktop: $window is not built (Qt 6 missing? run scripts/setup.sh); running tamsel run instead" >&2
  exec ./build/apps/tamsel/tamsel run
fi
exec "$window" "$@"
