#!/usr/bin/env bash
# pelsu beside other desktop feed readers on the same feeds, on a virtual desktop (Xvfb, no
# tray host, no notification server): start to main window and the memory (PSS) of the whole
# process tree, with the window, in the tray, and after ten channel pages were shown.
# Usage: bench/client/peers.sh [FEEDS] [PEER...]   (default 100 quiterss; a peer that is not
# installed is installed from Debian when running as root)
# PELSU_BUILD_DIR picks the build tree (default build, configured with -DPELSU_BUILD_BENCH=ON).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$root/scripts/common.sh"
feeds="${1:-100}"
shift || true
peers=("${@:-quiterss}")
ensure_packages xvfb xdotool x11-utils "${peers[@]}"
build="$(realpath "${PELSU_BUILD_DIR:-$root/build}")"
[ -x "$build/trayClient/pelsu" ] || { echo "bench/client: build pelsu first" >&2; exit 1; }
work="$(mktemp -d /tmp/pelsu-peers-XXXXXX)"
display=":${PELSU_BENCH_DISPLAY:-63}"
Xvfb "$display" -screen 0 1280x800x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
xvfb=$!
trap 'kill "$xvfb" 2>/dev/null; wait "$xvfb" 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do DISPLAY=$display xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
DISPLAY=$display dbus-run-session -- python3 "$here/peers.py" "$build" "$work" "$feeds" "${peers[@]}"
