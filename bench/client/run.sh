#!/usr/bin/env bash
# The desktop client with many channels, each figure beside a baseline measured in the same
# run: the time from start to the tray icon and the resident memory, with N channels and with
# an empty profile, and the longest stall of the UI thread while the worker updates the N
# channels, beside the same client with its worker idle.
# Usage: bench/client/run.sh [CHANNELS] [ITEMS_PER_FEED] [RUNS]   (default 1000 10 5)
# PELSU_BUILD_DIR picks the build tree (default build, configured with -DPELSU_BUILD_BENCH=ON).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
build="$(realpath "${PELSU_BUILD_DIR:-$root/build}")"
for program in "$build/trayClient/pelsu" "$build/benchClient/bench_uiStall"; do
    [ -x "$program" ] || { echo "bench/client: build $program first" >&2; exit 1; }
done
work="$(mktemp -d /tmp/pelsu-client-bench-XXXXXX)"
trap 'rm -rf "$work"' EXIT
exec python3 "$here/clientBench.py" "$build" "$work" "${1:-1000}" "${2:-10}" "${3:-5}"
