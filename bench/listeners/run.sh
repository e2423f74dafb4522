#!/usr/bin/env bash
# Measures the app-plugin server of pelsu-cli run under a bounded load from wrk (a second
# process, fixed connections, loopback), with the sample library plugin answering, beside
# nginx serving a static answer of the same size in the same run. Then the same again while
# 200 idle connections are held open to each server.
# Usage: bench/listeners/run.sh [SECONDS] [CONNECTIONS]   (defaults 10 and 10)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../.." && pwd)"
source "$root/scripts/common.sh"
ensure_packages "${PELSU_PACKAGES[@]}" nginx-light wrk
seconds="${1:-10}"
connections="${2:-10}"
work="$(mktemp -d /tmp/pelsu-listeners-XXXXXX)"
chmod 755 "$work"
cli="$root/build/cli/pelsu-cli"
build_tree "$root/build" >/dev/null

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}
app_port="$(free_port)"
plugin_port="$(free_port)"
nginx_port="$(free_port)"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    [ -f "$work/nginx.pid" ] && kill "$(cat "$work/nginx.pid")" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

# pelsu-cli run with the listeners on free ports.
"$cli" --home "$work/home" list >/dev/null
config="$(echo "$work"/home/Users/*)/config.ini"
printf '[Global Options]\nAppServerPortNo=%s\nAppPluginServerPortNo=%s\n' \
    "$app_port" "$plugin_port" > "$config"
"$cli" --home "$work/home" run > "$work/run.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do grep -q "Running with" "$work/run.out" && break; sleep 0.1; done
target="/Hello/greet?who=bench"
curl -sf "http://127.0.0.1:$plugin_port$target" > "$work/answer.html"

# nginx with the same answer as a static file.
mkdir -p "$work/www/Hello" "$work/tmp"
cp "$work/answer.html" "$work/www/Hello/greet"
cat > "$work/nginx.conf" <<CONF
worker_processes 1;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 1024; }
http {
    access_log off;
    default_type text/html;
    client_body_temp_path $work/tmp; proxy_temp_path $work/tmp; fastcgi_temp_path $work/tmp;
    uwsgi_temp_path $work/tmp; scgi_temp_path $work/tmp;
    server { listen 127.0.0.1:$nginx_port; root $work/www; }
}
CONF
nginx -c "$work/nginx.conf"

# load LABEL PORT: one wrk run; prints requests/s, the 99th percentile and the failures.
load() {
    local out
    out="$(wrk -t2 -c"$connections" -d"${seconds}s" --latency "http://127.0.0.1:$2$target")"
    local rps p99 errors non2xx
    rps="$(awk '/^Requests\/sec/ {print $2}' <<<"$out")"
    p99="$(awk '$1 == "99%" {print $2}' <<<"$out")"
    errors="$(awk '/Socket errors/ {gsub(",", ""); print $4 + $6 + $8 + $10}' <<<"$out")"
    non2xx="$(awk '/Non-2xx/ {print $5}' <<<"$out")"
    printf '%-40s %10s req/s   p99 %8s   failed %s\n' "$1" "$rps" "$p99" \
        "$(( ${errors:-0} + ${non2xx:-0} ))"
    echo "$rps" > "$work/rps-$3"
}

# hold PORT: 200 idle connections, kept open until killed.
hold() {
    python3 - "$1" <<'PY' &
import socket, sys, time
held = [socket.create_connection(("127.0.0.1", int(sys.argv[1]))) for _ in range(200)]
print("holding", len(held), flush=True)
time.sleep(3600)
PY
    pids+=($!)
    sleep 1
}

ratio() { python3 -c "import sys; print(f'{float(sys.argv[1]) / float(sys.argv[2]):.2f}')" "$@"; }

echo "wrk: 2 threads, $connections connections, ${seconds}s, GET $target ($(wc -c < "$work/answer.html") bytes)"
load "nginx (static copy), baseline" "$nginx_port" nginx
load "app-plugin server, library plugin" "$plugin_port" pelsu
hold "$nginx_port" >/dev/null
hold "$plugin_port" >/dev/null
load "nginx, 200 idle connections held" "$nginx_port" nginx-idle
load "app-plugin server, 200 idle held" "$plugin_port" pelsu-idle
echo "ratio to nginx: $(ratio "$(cat "$work/rps-pelsu")" "$(cat "$work/rps-nginx")")," \
     "with idle connections: $(ratio "$(cat "$work/rps-pelsu-idle")" "$(cat "$work/rps-nginx-idle")")"
