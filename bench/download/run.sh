#!/usr/bin/env bash
# Download benchmark: UpdateDownloader against curl + md5sum on the same file.
#
# Serves a random file (1 GiB unless SIZE_MIB says otherwise) from nginx on a
# free loopback port and, alternating in each round, times
#   - download_driver URL MD5 FILE   (download, digest check, rename), and
#   - curl -o FILE URL && md5sum FILE
# Reports the median wall times, their ratio (driver / curl+md5sum; target at
# most 1.0) and the driver's peak resident memory (target under 64 MiB).
#
#   bench/download/run.sh [path/to/download_driver]
#
# Environment: ROUNDS (default 3), SIZE_MIB (default 1024), BUILD_DIR (where to
# look for the driver when no path is given, default ./build).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
driver=${1:-${BUILD_DIR:-$top/build}/bench/download/download_driver}
rounds=${ROUNDS:-3}
size_mib=${SIZE_MIB:-1024}

for tool in nginx curl md5sum python3; do
    if ! command -v "$tool" >/dev/null && [ ! -x "/usr/sbin/$tool" ]; then
        echo "missing: $tool" >&2
        exit 2
    fi
done
if [ ! -x "$driver" ]; then
    echo "driver not found: $driver (build the download_driver target)" >&2
    exit 2
fi
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)

work=$(mktemp -d "${TMPDIR:-/tmp}/quillon-download-bench.XXXXXX")
nginx_pid=
cleanup() {
    if [ -n "$nginx_pid" ]; then
        kill "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1]); s.close()'
}

mkdir -p "$work/www" "$work/out"
echo "generating a ${size_mib} MiB random file..."
head -c "$((size_mib * 1024 * 1024))" /dev/urandom >"$work/www/big.bin"
checksum=$(md5sum "$work/www/big.bin" | cut -d' ' -f1)
# Write the file out now so its writeback does not compete with the first round.
sync "$work/www/big.bin"

# One nginx process, no master, as the current user; everything in $work.
start_nginx() {
    local port=$1
    cat >"$work/nginx.conf" <<EOF
daemon off;
master_process off;
pid $work/nginx.pid;
error_log $work/error.log;
events { worker_connections 64; }
http {
    access_log off;
    client_body_temp_path $work/client_body_temp;
    proxy_temp_path $work/proxy_temp;
    fastcgi_temp_path $work/fastcgi_temp;
    uwsgi_temp_path $work/uwsgi_temp;
    scgi_temp_path $work/scgi_temp;
    sendfile on;
    server {
        listen 127.0.0.1:$port;
        root $work/www;
    }
}
EOF
    rm -f "$work/nginx.pid"
    "$nginx_bin" -p "$work/" -e "$work/error.log" -c "$work/nginx.conf" &
    nginx_pid=$!
    for _ in $(seq 100); do
        if ! kill -0 "$nginx_pid" 2>/dev/null; then
            nginx_pid=
            return 1
        fi
        if [ -f "$work/nginx.pid" ] && curl -s -o /dev/null --noproxy '*' "http://127.0.0.1:$port/"; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

port=
for _ in 1 2 3 4 5; do
    candidate=$(free_port)
    if start_nginx "$candidate"; then
        port=$candidate
        break
    fi
done
if [ -z "$port" ]; then
    echo "nginx did not start:" >&2
    cat "$work/error.log" >&2 || true
    exit 1
fi
url="http://127.0.0.1:$port/big.bin"
echo "serving $url (md5 $checksum)"

now() { date +%s.%N; }

run_driver() {
    rm -f "$work/out/driver.bin"
    local start end
    start=$(now)
    if ! "$driver" "$url" "$checksum" "$work/out/driver.bin" 2>"$work/driver.err"; then
        cat "$work/driver.err" >&2
        exit 1
    fi
    end=$(now)
    rss=$(sed -n 's/^peak_rss_kib=//p' "$work/driver.err")
    awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f\n", b - a}' >>"$work/driver.times"
    echo "$rss" >>"$work/driver.rss"
    rm -f "$work/out/driver.bin"
}

run_curl() {
    rm -f "$work/out/curl.bin"
    local start end sum
    start=$(now)
    curl -s --noproxy '*' -o "$work/out/curl.bin" "$url"
    sum=$(md5sum "$work/out/curl.bin" | cut -d' ' -f1)
    end=$(now)
    if [ "$sum" != "$checksum" ]; then
        echo "curl download has the wrong digest" >&2
        exit 1
    fi
    awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f\n", b - a}' >>"$work/curl.times"
    rm -f "$work/out/curl.bin"
}

# Warm the page cache for the served file so the first round is not penalised.
cat "$work/www/big.bin" >/dev/null

for round in $(seq "$rounds"); do
    if [ $((round % 2)) -eq 1 ]; then
        run_driver
        run_curl
    else
        run_curl
        run_driver
    fi
    printf 'round %d: driver %.2fs (peak %s KiB), curl+md5sum %.2fs\n' "$round" \
        "$(tail -n1 "$work/driver.times")" "$(tail -n1 "$work/driver.rss")" \
        "$(tail -n1 "$work/curl.times")"
done

median() { sort -g "$1" | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
driver_median=$(median "$work/driver.times")
curl_median=$(median "$work/curl.times")
peak_kib=$(sort -n "$work/driver.rss" | tail -n1)
ratio=$(awk -v a="$driver_median" -v b="$curl_median" 'BEGIN {print a / b}')

printf '\nfile: %d MiB, rounds: %d\n' "$size_mib" "$rounds"
printf 'median wall time: driver %.2fs, curl+md5sum %.2fs\n' "$driver_median" "$curl_median"
printf 'ratio driver / (curl+md5sum): %.3f (target <= 1.0)\n' "$ratio"
printf 'driver peak resident memory: %.1f MiB (target < 64 MiB)\n' "$(awk -v k="$peak_kib" 'BEGIN {print k / 1024}')"
