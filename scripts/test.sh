#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
source "$(dirname "$0")/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}"
build_tree "$PELSU_ROOT/build" -DPELSU_BUILD_TESTS=ON -DPELSU_WERROR="${PELSU_WERROR:-OFF}"
ctest --test-dir "$PELSU_ROOT/build" --no-tests=error -j"$(nproc)" --output-on-failure
