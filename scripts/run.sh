#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job on an offline default.
set -euo pipefail
source "$(dirname "$0")/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}"
build_tree "$PELSU_ROOT/build" -DPELSU_BUILD_TESTS=ON
cli="$PELSU_ROOT/build/cli/pelsu-cli"
"$cli" --version
"$cli" --help
