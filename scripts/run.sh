#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job on an offline default: a user
# directory in build/demo-home with the default news channel and a sample feed that ship with
# the program. On a desktop (DISPLAY or WAYLAND_DISPLAY set) it starts the desktop client on
# it; otherwise the channels are updated and shown in the terminal.
set -euo pipefail
source "$(dirname "$0")/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}"
build_tree "$PELSU_ROOT/build" -DPELSU_BUILD_TESTS=ON
cli="$PELSU_ROOT/build/cli/pelsu-cli"
home="$PELSU_ROOT/build/demo-home"
if ! "$cli" --home "$home" list | grep -q '^ReleaseNotes '; then
    "$cli" --home "$home" add "$PELSU_ROOT/build/Resources/feeds/ReleaseNotes.rdf" --id ReleaseNotes
fi
client="$PELSU_ROOT/build/trayClient/pelsu"
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -x "$client" ]; then
    echo "Starting the desktop client on $home (it stays in the notification area)."
    exec "$client" --home "$home"
fi
"$cli" --home "$home" update
echo
"$cli" --home "$home" list
echo
"$cli" --home "$home" show PelsuNews
echo
echo "The user directory is $home (log: $(ls -d "$home"/Users/*/Logs)/pelsu.log)."
