#!/usr/bin/env bash
# Measures pelsu-cli update over a farm of generated feeds served by nginx on the loopback
# address, beside the same passes of a peer reader (newsboat, reload-threads 1):
#   (a) first fetch, (b) nothing changed (all 304), (c) one feed in ten changed.
# Usage: bench/farm/run.sh [COUNT]   (default 1000). Needs root for nginx on port 80.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$root/scripts/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}" nginx-light newsboat time
count="${1:-1000}"
host=127.0.0.77
work="$(mktemp -d /tmp/pelsu-farm-XXXXXX)"
chmod 755 "$work" # nginx's workers read the feeds as another user
cli="$root/build/cli/pelsu-cli"
build_tree "$root/build" >/dev/null

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

# measure LABEL COMMAND...: prints wall seconds and peak memory.
measure() {
    local label="$1"
    shift
    /usr/bin/time -f "%e %M" -o "$work/time" "$@" >"$work/out" 2>&1 || {
        echo "$label: failed"; tail -5 "$work/out"; }
    read -r seconds kib < <(tail -1 "$work/time")
    printf '%-28s %8.2f s %8d KiB\n' "$label" "$seconds" "$kib"
}

pelsu() { measure "pelsu $1" "$cli" --home "$work/home" update; }
peer() { measure "peer $1" newsboat -x reload -u "$work/urls" -c "$work/cache.db" \
                 -C "$work/newsboat.conf"; }

echo "feeds: $count on http://$host/"
pelsu "(a) first fetch"
peer "(a) first fetch"
pelsu "(b) all unchanged"
peer "(b) all unchanged"
python3 "$here/makeFarm.py" "$work/feeds" --count "$count" --change 10 >/dev/null
pelsu "(c) one in ten changed"
peer "(c) one in ten changed"
