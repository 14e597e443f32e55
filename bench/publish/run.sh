#!/usr/bin/env bash
# Query load benchmark: how many update queries per second one nginx answers
# from a tree written by publisher/quillon-publish.
#
# Publishes a signed release for CLIENTS older client versions on two
# architectures (a map of 2 x CLIENTS entries), serves the tree with the
# generated configuration from nginx on a free loopback port, and runs wrk
# for DURATION against two realistic query URLs: an old client that gets the
# update answer, and a current client that gets the nothing-to-do answer.
#
#   bench/publish/run.sh
#
# Environment: DURATION (default 10s), CONNECTIONS (default 64), THREADS
# (default 2), WORKERS (nginx worker processes, default auto), CLIENTS
# (default 500). Needs nginx, wrk (apt-get install wrk) and python3-cryptography.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
duration=${DURATION:-10s}
connections=${CONNECTIONS:-64}
threads=${THREADS:-2}
workers=${WORKERS:-auto}
clients=${CLIENTS:-500}

for tool in wrk python3; do
    if ! command -v "$tool" >/dev/null; then
        echo "missing: $tool" >&2
        exit 2
    fi
done
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)

work=$(mktemp -d "${TMPDIR:-/tmp}/quillon-publish-bench.XXXXXX")
nginx_pid=
cleanup() {
    if [ -n "$nginx_pid" ]; then
        kill "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

chmod 755 "$work"  # nginx workers read the tree as their own user
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
mkdir -p "$work/dist" "$work/tmp"
printf '#!/bin/sh\nexit 0\n' >"$work/dist/quillon-updater"
head -c $((4 * 1024 * 1024)) /dev/urandom >"$work/dist/quillon-5.0.deb"
client_list=$(python3 -c "print(', '.join(str(4000 + i) for i in range($clients)))")
cat >"$work/release.toml" <<EOF
product = "quillon"
query_path = "/quillon/client/update"
files_url = "http://127.0.0.1:$port/quillon/files"

[[release]]
version = $((4000 + clients))
updater = "dist/quillon-updater"
pack = "dist/quillon-5.0.deb"
updater_args = ["--quiet"]
clients = [$client_list]
os = ["linux"]
arch = ["x86", "x86_64"]
EOF
"$top/publisher/quillon-publish" keygen "$work/bench.key" >/dev/null
"$top/publisher/quillon-publish" build "$work/release.toml" --out "$work/tree" \
    --key "$work/bench.key"

cat >"$work/nginx.conf" <<EOF
daemon off;
worker_processes $workers;
pid $work/nginx.pid;
error_log $work/error.log;
events { worker_connections 4096; }
http {
    access_log off;
    client_body_temp_path $work/tmp;
    proxy_temp_path $work/tmp;
    fastcgi_temp_path $work/tmp;
    uwsgi_temp_path $work/tmp;
    scgi_temp_path $work/tmp;
    open_file_cache max=1000 inactive=60s;
    include $work/tree/nginx/maps.conf;
    server {
        listen 127.0.0.1:$port backlog=4096;
        include $work/tree/nginx/locations.conf;
    }
}
EOF
"$nginx_bin" -c "$work/nginx.conf" -p "$work" &
nginx_pid=$!

base="http://127.0.0.1:$port/quillon/client/update"
rest="server=4103%2C4110&os=linux&arch=x86_64&osversion=Debian%2012&installer=deb"
old_client="$base?identify=quillon&type=updater&client=$((4000 + clients / 2))&$rest"
new_client="$base?identify=quillon&type=updater&client=$((4000 + clients))&$rest"
for _ in $(seq 50); do
    curl -sf -o /dev/null "$old_client" && break
    sleep 0.1
done
# Each answer must be the right one before it is worth timing.
curl -sf "$old_client" | grep -q '"updater"' || { echo "no update answer" >&2; exit 1; }
[ "$(curl -sf "$new_client" | python3 -c 'import json,sys; print(list(json.load(sys.stdin)))')" \
    = "['expires']" ] || { echo "no nothing-to-do answer" >&2; exit 1; }

echo "nginx workers: $workers, map entries: $((2 * clients)), wrk: -t$threads -c$connections -d$duration"
for url in "$old_client" "$new_client"; do
    echo "== $url"
    wrk -t"$threads" -c"$connections" -d"$duration" --latency "$url" |
        grep -E 'Requests/sec|Non-2xx|Socket errors|50%|99%|Transfer/sec'
done
