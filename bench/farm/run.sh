#!/usr/bin/env bash
# Measures pelsu-cli update over a farm of generated feeds served by nginx on the loopback
# address, in three passes: (a) first fetch, (b) nothing changed (all 304), (c) one feed in ten
# changed. Beside each pass, on the same farm and in the same run:
#   - a peer reader (newsboat, reload-threads 1);
#   - the floor: farmFloor.cpp, one conditional GET and one small state file written
#     atomically per feed, nothing else;
# and pelsu's wall and CPU time (user+sys) as ratios to both. Last, pelsu-cli list over the
# same channels. Each line gives wall seconds, CPU seconds and peak resident memory.
# Usage: bench/farm/run.sh [COUNT] [ROUNDS]   (defaults 1000 and 0). Needs root for nginx on
# port 80. With ROUNDS, the first fetch is then measured again ROUNDS times for pelsu and the
# floor in turn, each from a fresh state, and the medians are given: on a loaded machine or a
# file system whose cost of creating files swings, one pass of either says little. Beside them
# the floor that keeps each document it fetched (farmFloor --keep-body), replacing a file that
# exists as pelsu replaces the channel's file, and the floor that also runs each document through
# expat with no handlers (farmFloor --keep-body --parse): the least a reader that parses what
# it fetches with expat can do.
# PELSU_CLI=path measures that pelsu-cli instead of the one this tree builds.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$root/scripts/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}" nginx-light newsboat time
count="${1:-1000}"
rounds="${2:-0}"
host=127.0.0.77
work="$(mktemp -d /tmp/pelsu-farm-XXXXXX)"
chmod 755 "$work" # nginx's workers read the feeds as another user
cli="${PELSU_CLI:-$root/build/cli/pelsu-cli}" # PELSU_CLI measures another build
cmake -S "$root" -B "$root/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C "$root/build" -j"$(nproc)" pelsu-cli >/dev/null
floor="$work/farmFloor"
g++ -std=c++20 -O2 -Wall -Wextra -o "$floor" "$here/farmFloor.cpp" -lcurl -lexpat
mkdir -p "$work/floor"

python3 "$here/makeFarm.py" "$work/feeds" --count "$count"

cat > "$work/nginx.conf" <<CONF
worker_processes 1;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 256; }
http {
    access_log off;
    default_type application/rss+xml;
    etag on;
    if_modified_since exact;
    client_body_temp_path $work/tmp; proxy_temp_path $work/tmp; fastcgi_temp_path $work/tmp;
    uwsgi_temp_path $work/tmp; scgi_temp_path $work/tmp;
    server { listen $host:80; root $work/feeds; }
}
CONF
mkdir -p "$work/tmp"
nginx -c "$work/nginx.conf"
trap 'kill "$(cat "$work/nginx.pid")" 2>/dev/null || true; rm -rf "$work"' EXIT

# The same subscriptions for both readers.
{
    echo '<?xml version="1.0"?><opml version="1.0"><body>'
    for ((i = 0; i < count; i++)); do
        echo "<outline type=\"rss\" text=\"feed$i\" xmlUrl=\"http://$host/feed$i.xml\"/>"
    done
    echo '</body></opml>'
} > "$work/farm.opml"
for ((i = 0; i < count; i++)); do echo "http://$host/feed$i.xml"; done > "$work/urls"
printf 'reload-threads 1\nshow-read-feeds yes\n' > "$work/newsboat.conf"

"$cli" --home "$work/home" import-opml "$work/farm.opml" >/dev/null
"$cli" --home "$work/home" remove PelsuNews >/dev/null

# measure READER PHASE COMMAND...: runs the command, prints its line and keeps its wall and
# CPU seconds in wall[READER PHASE] and cpu[READER PHASE].
declare -A wall cpu
measure() {
    local reader="$1" phase="$2" seconds user system kib
    shift 2
    /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$@" >"$work/out" 2>&1 || {
        echo "$reader $phase: failed"; tail -5 "$work/out"; }
    read -r seconds user system kib < <(tail -1 "$work/time")
    wall[$reader $phase]=$seconds
    cpu[$reader $phase]=$(awk -v u="$user" -v s="$system" 'BEGIN { printf "%.2f", u + s }')
    printf '%-24s %-9s %8.2f %8.2f %10d\n' "$phase" "$reader" "$seconds" \
        "${cpu[$reader $phase]}" "$kib"
}

# ratio A B: A / B to two places ("-" when B is zero).
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }'; }

# pass PHASE: the three readers over the farm, then pelsu's ratios to the other two.
pass() {
    local phase="$1" other
    measure pelsu "$phase" "$cli" --home "$work/home" update
    measure newsboat "$phase" newsboat -x reload -u "$work/urls" -c "$work/cache.db" \
        -C "$work/newsboat.conf"
    measure floor "$phase" "$floor" "$work/urls" "$work/floor"
    for other in floor newsboat; do
        printf '%-24s pelsu/%-8s wall %6sx  cpu %6sx\n' "" "$other" \
            "$(ratio "${wall[pelsu $phase]}" "${wall[$other $phase]}")" \
            "$(ratio "${cpu[pelsu $phase]}" "${cpu[$other $phase]}")"
    done
}

echo "feeds: $count on http://$host/"
printf '%-24s %-9s %8s %8s %10s\n' phase reader "wall s" "cpu s" "peak KiB"
pass "(a) first fetch"
pass "(b) all unchanged"
python3 "$here/makeFarm.py" "$work/feeds" --count "$count" --change 10 >/dev/null
pass "(c) one in ten changed"
for run in 1 2 3; do # three times: one run takes a twentieth of a second, and noise is large
    measure pelsu "list, run $run" "$cli" --home "$work/home" list
done

# median: the middle of the numbers on standard input (the mean of the two middle ones).
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

if ((rounds > 0)); then
    : >"$work/rounds"
    for ((round = 1; round <= rounds; round++)); do
        # New directories each round, none deleted meanwhile: on a file system without a
        # journal, files created soon after others were deleted cost more.
        home="$work/round-home-$round" state="$work/round-floor-$round"
        kept="$work/round-kept-$round" parsed="$work/round-parsed-$round"
        mkdir -p "$state" "$kept" "$parsed"
        for ((i = 0; i < count; i++)); do : >"$kept/feed$i.state"; : >"$parsed/feed$i.state"; done
        "$cli" --home "$home" import-opml "$work/farm.opml" >/dev/null
        "$cli" --home "$home" remove PelsuNews >/dev/null
        measure pelsu "(a) round $round" "$cli" --home "$home" update >/dev/null
        measure floor "(a) round $round" "$floor" "$work/urls" "$state" >/dev/null
        measure kept "(a) round $round" "$floor" --keep-body "$work/urls" "$kept" >/dev/null
        measure parsed "(a) round $round" "$floor" --keep-body --parse "$work/urls" "$parsed" \
            >/dev/null
        echo "${wall[pelsu (a) round $round]} ${cpu[pelsu (a) round $round]}" \
            "${wall[floor (a) round $round]} ${cpu[floor (a) round $round]}" \
            "${wall[kept (a) round $round]} ${cpu[kept (a) round $round]}" \
            "${wall[parsed (a) round $round]} ${cpu[parsed (a) round $round]}" >>"$work/rounds"
    done
    column() { awk -v c="$1" '{ print $c }' "$work/rounds" | median; }
    ratios() { awk -v a="$1" -v b="$2" '$b > 0 { print $a / $b }' "$work/rounds" | median; }
    printf '(a) first fetch, median of %d rounds (wall s, cpu s): pelsu %s %s; floor %s %s;' \
        "$rounds" "$(column 1)" "$(column 2)" "$(column 3)" "$(column 4)"
    printf ' floor keeping the documents %s %s; and parsing them %s %s\n' "$(column 5)" \
        "$(column 6)" "$(column 7)" "$(column 8)"
    printf '%-24s pelsu/%-8s wall %6.2fx  cpu %6.2fx  (median of the rounds\x27 ratios)\n' "" floor \
        "$(ratios 1 3)" "$(ratios 2 4)"
    printf '%-24s pelsu/%-8s wall %6.2fx  cpu %6.2fx  (floor keeping the documents)\n' "" kept \
        "$(ratios 1 5)" "$(ratios 2 6)"
    printf '%-24s pelsu/%-8s wall %6.2fx  cpu %6.2fx  (floor keeping and parsing them)\n' "" \
        parsed "$(ratios 1 7)" "$(ratios 2 8)"
    printf '%-24s parsed/%-7s wall %6.2fx  cpu %6.2fx  (what parsing alone adds to the floor)\n' \
        "" floor "$(ratios 7 3)" "$(ratios 8 4)"
fi
