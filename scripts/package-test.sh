#!/usr/bin/env bash
# Builds the Debian packages from the default build, checks them with lintian, installs them with
# dpkg on this machine, tries what a person would (--version, man, completion, the desktop entry,
# the AppStream data, the user service), then removes them and checks nothing is left behind.
# Installs with dpkg (through sudo when not root); CI runs it on its own machine.
# Usage: scripts/package-test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=$root/build/package
step() { printf '\n== %s\n' "$*"; }
fail() { echo "package-test: $*" >&2; exit 1; }

# dpkg needs root: as setup.sh does, use sudo when not root.
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

step "build and package"
cmake --preset default >/dev/null
cmake --build --preset default
rm -rf "$out"
(cd build && cpack -G DEB -B "$out" >/dev/null)
mapfile -t debs < <(ls "$out"/*.deb)
printf '%s\n' "${debs[@]}"
for deb in "${debs[@]}"; do
  dpkg-deb -f "$deb" Package Version Depends
done

step "lintian"
# Every tag we keep is justified in packaging/lintian/. Run once; its warning about root is dropped.
lintian_status=0
lintian_output=$(lintian --fail-on error,warning "${debs[@]}" 2>&1) || lintian_status=$?
grep -v 'running with root privileges' <<<"$lintian_output" || true
((lintian_status == 0)) || fail "lintian reports problems (above)"

packages=()
for deb in "${debs[@]}"; do packages+=("$(dpkg-deb -f "$deb" Package)"); done
$sudo dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true

step "install"
$sudo dpkg -i "${debs[@]}"
installed_files=$(mktemp)
trap 'rm -f "$installed_files"' EXIT
for p in "${packages[@]}"; do dpkg -L "$p"; done | sort -u >"$installed_files"

step "tamsel --version"
version=$(/usr/bin/tamsel --version)
echo "$version"
[[ $version == "tamsel $(dpkg-deb -f "${debs[0]}" Version | sed 's/-[0-9]*$//')"* ]] ||
  fail "--version does not name the packaged version"

step "man -w tamsel"
man -w tamsel | grep -qx /usr/share/man/man1/tamsel.1.gz || fail "the manual page is not found"
man -w tamsel

if [ -x /usr/bin/tamsel-desktop ]; then
  step "tamsel-desktop --version, man -w tamsel-desktop"
  desktop_version=$(QT_QPA_PLATFORM=offscreen /usr/bin/tamsel-desktop --version)
  echo "$desktop_version"
  [[ $desktop_version == *"${version#tamsel }" ]] ||
    fail "tamsel-desktop names another version than tamsel ($desktop_version)"
  man -w tamsel-desktop
fi

step "bash completion"
completed=$(bash -c '
  source /usr/share/bash-completion/completions/tamsel
  COMP_WORDS=(tamsel eng); COMP_CWORD=1; COMP_LINE="tamsel eng"; COMP_POINT=${#COMP_LINE}
  _tamsel tamsel eng tamsel
  echo "${COMPREPLY[@]}"')
echo "tamsel eng<TAB> -> $completed"
[[ " $completed " == *" engine "* ]] || fail "bash completion does not offer 'engine'"

step "desktop entry and AppStream data"
entry=/usr/share/applications/dev.tamsel.desktop.desktop
metainfo=/usr/share/metainfo/dev.tamsel.desktop.metainfo.xml
if [ ! -e "$entry" ]; then
  echo "(the desktop window is not part of this build: checking the sources instead)"
  entry=$root/packaging/dev.tamsel.desktop.desktop
  metainfo=$root/build/packaging/dev.tamsel.desktop.metainfo.xml
fi
desktop-file-validate "$entry"
appstreamcli validate --no-net --pedantic "$metainfo"

step "the user service"
unit=/usr/lib/systemd/user/tamsel.service
systemd-analyze verify "$unit"
if systemctl --user show-environment >/dev/null 2>&1; then
  mkdir -p "$HOME/.config/systemd/user/tamsel.service.d"
  dropin=$HOME/.config/systemd/user/tamsel.service.d/package-test.conf
  printf '[Service]\nEnvironment=VERD_BINARY=%s\n' "$root/tools/verd-sim/verd-sim" >"$dropin"
  systemctl --user daemon-reload
  systemctl --user start tamsel.service  # Type=notify: returns once the engine answers
  systemctl --user is-active tamsel.service
  systemctl --user stop tamsel.service
  journalctl --user -t tamsel --since "-2min" --no-pager | tail -5
  journalctl --user -t tamsel --since "-2min" --no-pager | grep -q "Tamsel Engine is running" ||
    fail "the service's log is not in the journal"
  rm -f "$dropin"
  systemctl --user daemon-reload
else
  echo "skipped starting tamsel.service: no systemd user instance here" \
    "($(systemctl --user show-environment 2>&1 | head -1))."
  echo "The readiness protocol the unit relies on is checked without systemd instead:"
  (cd "$root/tests/integration" && TAMSEL_BIN=/usr/bin/tamsel python3 -m unittest -q \
    test_cli.RunTests.test_tells_a_service_manager_when_the_engine_is_up_and_when_it_stops)
fi

step "remove"
$sudo dpkg --purge "${packages[@]}"
left=0
while read -r f; do
  # Shared folders (/usr, /usr/share, ...) stay; anything of ours must go.
  if [ -e "$f" ] && [ ! -d "$f" ]; then echo "left behind: $f"; left=1; fi
done <"$installed_files"
for d in /usr/share/doc/tamsel /usr/libexec/tamsel; do
  [ -e "$d" ] && { echo "left behind: $d"; left=1; }
done
((left == 0)) || fail "removing the packages left files behind"
echo "package-test: all checks passed"
