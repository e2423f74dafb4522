#!/usr/bin/env bash
# Peak memory (maximum resident set, from /usr/bin/time) of pelsu-cli when a plugin script
# writes a large output: an app plugin answering a request ("pelsu-cli plugin") and a plugin
# channel's update ("pelsu-cli update"). Each size runs with "MaxScriptOutputKB" switched off
# (0: the whole output is taken in) as the baseline, and with its default, in the same run.
# Usage: bench/scriptOutput/run.sh [MB...]   (default 100)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
sizes=("${@:-100}")
[ "${#sizes[@]}" -eq 0 ] && sizes=(100)
work="$(mktemp -d /tmp/pelsu-script-output-XXXXXX)"
trap 'rm -rf "$work"' EXIT

# A program directory of its own, so that the flooding plugin does not land in the build tree.
prog="$work/prog"
mkdir -p "$prog/bin" "$prog/appPlugins/flood"
cp "$root/build/cli/pelsu-cli" "$prog/bin/"
cp -r "$root/build/Resources" "$root/build/global.ini" "$root/build/debug.ini" "$prog/"
cat >"$prog/appPlugins/flood/flood.plugin" <<'PLUGIN'
[Config]
Plugin=flood.sh
PLUGIN
cat >"$prog/appPlugins/flood/flood.sh" <<'SCRIPT'
head -c "$((FLOOD_MB * 1048576))" /dev/zero | tr '\0' x
SCRIPT
cli="$prog/bin/pelsu-cli"

peak() { # prints the peak resident set in MiB and the command's first error line
    local out
    out="$( { /usr/bin/time -f 'PEAK %M' "$@" 2>&1 >/dev/null; } || true)"
    printf '%6d MiB  %s\n' "$(( $(grep -o 'PEAK [0-9]*' <<<"$out" | cut -d' ' -f2) / 1024 ))" \
        "$(grep -v -e PEAK -e '^Command exited' <<<"$out" | head -1 | cut -c1-110)"
}

for mb in "${sizes[@]}"; do
    for limit in 0 default; do
        home="$work/home-$mb-$limit"
        "$cli" --home "$home" list >/dev/null
        user="$(ls -d "$home"/Users/*)"
        if [ "$limit" = 0 ]; then
            printf '[Global Options]\nMaxScriptOutputKB=0\n' >>"$user/config.ini"
        fi
        "$cli" --home "$home" add --plugin "$prog/appPlugins/flood/flood.sh" --id flood >/dev/null
        export FLOOD_MB="$mb"
        echo "== $mb MB of output, MaxScriptOutputKB=$limit"
        printf '  plugin request: '
        peak "$cli" --home "$home" plugin flood x || true
        printf '  channel update: '
        peak "$cli" --home "$home" update flood || true
    done
done
