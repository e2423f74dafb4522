#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job on an offline default: a user
# directory in build/demo-home with the default news channel and a sample feed that ship with
# the program, updated and shown.
set -euo pipefail
source "$(dirname "$0")/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}"
build_tree "$PELSU_ROOT/build" -DPELSU_BUILD_TESTS=ON
cli="$PELSU_ROOT/build/cli/pelsu-cli"
home="$PELSU_ROOT/build/demo-home"
if ! "$cli" --home "$home" list | grep -q '^ReleaseNotes '; then
    "$cli" --home "$home" add "$PELSU_ROOT/build/Resources/feeds/ReleaseNotes.rdf" --id ReleaseNotes
fi
"$cli" --home "$home" update
echo
"$cli" --home "$home" list
echo
"$cli" --home "$home" show PelsuNews
echo
echo "The user directory is $home (log: $(ls -d "$home"/Users/*/Logs)/pelsu.log)."
