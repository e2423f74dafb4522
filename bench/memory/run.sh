#!/usr/bin/env bash
# Peak memory of pelsu-cli parse, update (first and second) and list over generated feeds of
# two shapes: ordinary items (title, link, guid, a paragraph of text, a date) and the worst
# shape, minimal items (<item><title>x</title></item>). Prints the peak resident size that
# /usr/bin/time reports beside the feed's size, their ratio, and the wall time.
# PELSU_SHAPES picks the shapes ("ordinary minimal"), PELSU_CLI another pelsu-cli binary.
# Usage: bench/memory/run.sh [MEGABYTES]   (default 30; minimal items stop at 14 MB, about
# 480,000 items, under the default "MaxItemsPerFeed" of 500,000)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$root/scripts/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}" time
megabytes="${1:-30}"
work="$(mktemp -d /tmp/pelsu-memory-XXXXXX)"
trap 'rm -rf "$work"' EXIT
cli="${PELSU_CLI:-$root/build/cli/pelsu-cli}"
[ -n "${PELSU_CLI:-}" ] || build_tree "$root/build" >/dev/null

# make_feed SHAPE FILE GENERATION: a feed of about $megabytes MB; the generation changes
# part of the items, as a later edition of a feed does.
make_feed() {
    local size="$megabytes"
    [ "$1" = minimal ] && [ "$size" -gt 14 ] && size=14
    python3 - "$1" "$2" "$3" "$size" <<'PY'
import sys
shape, path, generation, megabytes = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
limit = megabytes * 1000 * 1000
with open(path, "w") as out:
    out.write('<?xml version="1.0"?>\n<rss version="2.0"><channel><title>Memory</title>'
              '<link>http://memory.example/</link><description>generated</description>\n')
    written, n = 0, 0
    while written < limit:
        if shape == "minimal":
            item = "<item><title>x</title></item>\n"
        else:
            k = n + generation * 1000
            item = ("<item><title>Story %d of the day</title>"
                    "<link>http://memory.example/story/%d</link>"
                    "<guid>http://memory.example/story/%d</guid>"
                    "<description>%s</description>"
                    "<pubDate>Mon, 23 Nov 2026 08:00:00 GMT</pubDate></item>\n"
                    % (k, k, k, ("Words of story %d, and more words. " % k) * 12))
        out.write(item)
        written += len(item)
        n += 1
    out.write("</channel></rss>\n")
PY
}

# measure LABEL FEED COMMAND...: one line of the table.
measure() {
    local label="$1" feed="$2"
    shift 2
    local size start end peak
    size=$(stat -c %s "$feed")
    start=$(date +%s.%N)
    /usr/bin/time -f %M -o "$work/time" "$@" >/dev/null 2>"$work/err" ||
        { echo "$label failed:"; tail -3 "$work/err"; return 0; }
    end=$(date +%s.%N)
    peak=$(( $(tail -1 "$work/time") * 1024 ))
    python3 -c "import sys
size, peak, secs = int(sys.argv[2]), int(sys.argv[3]), float(sys.argv[5]) - float(sys.argv[4])
print('%-26s feed %7.1f MiB  peak %8.1f MiB  ratio %6.2f  (peak - 30 MiB) / feed %6.2f  %7.2f s'
      % (sys.argv[1], size / 2**20, peak / 2**20, peak / size, max(0, peak - 30 * 2**20) / size, secs))" \
        "$label" "$size" "$peak" "$start" "$end"
}

for shape in ${PELSU_SHAPES:-ordinary minimal}; do
    make_feed "$shape" "$work/$shape-1.xml" 1
    make_feed "$shape" "$work/$shape-2.xml" 2
    home="$work/home-$shape"
    measure "$shape: parse" "$work/$shape-1.xml" "$cli" parse "$work/$shape-1.xml"
    "$cli" --home "$home" add "$work/$shape.xml" --id big >/dev/null 2>&1 ||
        "$cli" --home "$home" add "$work/$shape.xml" --id big >/dev/null
    cp "$work/$shape-1.xml" "$work/$shape.xml"
    measure "$shape: first update" "$work/$shape.xml" "$cli" --home "$home" update big
    cp "$work/$shape-2.xml" "$work/$shape.xml"
    measure "$shape: second update" "$work/$shape.xml" "$cli" --home "$home" update big
    channel=$(echo "$home"/Users/*/Channels/big.rss)
    measure "$shape: list" "$channel" "$cli" --home "$home" list
done
