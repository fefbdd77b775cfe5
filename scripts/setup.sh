#!/usr/bin/env bash
# Installs every Debian package the project needs (non-interactive, idempotent) and builds.
# Usage: scripts/setup.sh [--no-build]
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build ccache pkg-config python3
  libboost1.81-dev libboost-json1.81-dev libboost-filesystem1.81-dev libboost-url1.81-dev
  libspdlog-dev libfmt-dev libcli11-dev libhowardhinnant-date-dev libssl-dev
  libsimdjson-dev libsystemd-dev libreadline-dev libmd4c-dev tmux clang libclang-rt-14-dev libical-dev libxml2-dev radicale khal
  libgtest-dev libgmock-dev libbenchmark-dev clang-format groff-base
  libpulse-dev libsndfile1-dev libsoxr-dev libavcodec-dev libavformat-dev libavutil-dev ffmpeg
  libx11-dev libxi-dev libxtst-dev libevdev-dev xvfb
  qt6-base-dev qt6-base-dev-tools libqt6svg6-dev qt6-svg-dev xdotool qt6-wayland weston libxcb1-dev
  pulseaudio pulseaudio-utils pipewire pipewire-bin pipewire-pulse wireplumber dbus-user-session sox
  dpkg-dev lintian desktop-file-utils appstream man-db librsvg2-bin
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

if [ "${1:-}" != "--no-build" ]; then
  cmake --preset default
  cmake --build --preset default
fi
