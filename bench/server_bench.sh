#!/bin/bash
# HTTP throughput and latency of qkd against nginx serving the same bytes as
# a static file, both on loopback, measured by wrk at 1, 16 and 64
# connections; then the native protocol's round trips through one
# connection (qkbench's server group), when qkbench is built.
#
#   bench/server_bench.sh [BUILD_DIR]     (default: build-bench)
#
# DURATION (default 5s) and THREADS (default 2, at most one per connection)
# tune the wrk runs. Needs wrk and nginx-light: scripts/install-deps.sh --bench.
set -euo pipefail

build=${1:-build-bench}
qkd=$build/tools/qkd/qkd
qkbench=$build/bench/qkbench
duration=${DURATION:-5s}
threads=${THREADS:-2}
path=/fp?text=hello

for tool in wrk nginx curl; do
    command -v "$tool" >/dev/null || { echo "missing $tool: scripts/install-deps.sh --bench" >&2; exit 2; }
done
[[ -x $qkd ]] || { echo "no $qkd: build first" >&2; exit 2; }

work=$(mktemp -d)
qkd_pid=
nginx_pid=
cleanup() {
    [[ -n $qkd_pid ]] && kill "$qkd_pid" 2>/dev/null && wait "$qkd_pid" 2>/dev/null
    [[ -n $nginx_pid ]] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# qkd on a port of the system's choice; its one stdout line says which.
"$qkd" --port 0 >"$work/qkd.out" 2>"$work/qkd.err" &
qkd_pid=$!
for _ in $(seq 100); do
    [[ -s $work/qkd.out ]] && break
    sleep 0.05
done
qkd_address=$(sed -n 's/^qkd listening on //p' "$work/qkd.out")
[[ -n $qkd_address ]] || { echo "qkd did not start:" >&2; cat "$work/qkd.err" >&2; exit 1; }
qkd_port=${qkd_address##*:}

# The static file: exactly the body of qkd's reply.
mkdir -p "$work/www" "$work/tmp" "$work/logs"
curl -s -f "http://$qkd_address$path" >"$work/www/fp"

# nginx in the foreground as the current user, everything in the scratch
# directory, on the first free loopback port above qkd's.
start_nginx() {
    local port=$1 user=
    [[ $(id -u) -eq 0 ]] && user="user root;"
    cat >"$work/nginx.conf" <<EOF
$user
daemon off;
worker_processes auto;
pid $work/nginx.pid;
error_log $work/logs/error.log warn;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $work/tmp/body;
    proxy_temp_path $work/tmp/proxy;
    fastcgi_temp_path $work/tmp/fastcgi;
    uwsgi_temp_path $work/tmp/uwsgi;
    scgi_temp_path $work/tmp/scgi;
    keepalive_requests 1000000;
    default_type "text/plain;charset=utf-8";
    types { }
    server {
        listen 127.0.0.1:$port;
        root $work/www;
        location = /fp { }
    }
}
EOF
    nginx -p "$work" -c "$work/nginx.conf" -e "$work/logs/error.log" &
    nginx_pid=$!
    for _ in $(seq 100); do
        if curl -s -f -o /dev/null "http://127.0.0.1:$port$path"; then return 0; fi
        kill -0 "$nginx_pid" 2>/dev/null || break
        sleep 0.05
    done
    kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
    nginx_pid=
    return 1
}
nginx_port=
for port in $(seq $((qkd_port % 50000 + 10001)) $((qkd_port % 50000 + 10020))); do
    if start_nginx "$port"; then nginx_port=$port; break; fi
done
[[ -n $nginx_port ]] || { echo "nginx did not start:" >&2; cat "$work/logs/error.log" >&2; exit 1; }
cmp -s "$work/www/fp" <(curl -s "http://127.0.0.1:$nginx_port$path") ||
    { echo "nginx does not serve qkd's body" >&2; exit 1; }

# Latency in microseconds from wrk's "1.23ms" and the like.
to_us() {
    awk -v v="$1" 'BEGIN {
        n = v + 0; unit = v; sub(/^[0-9.]+/, "", unit)
        f = unit == "us" ? 1 : unit == "ms" ? 1000 : unit == "s" ? 1000000 : unit == "m" ? 60000000 : 0
        printf "%.0f", n * f }'
}

# One wrk run: prints "REQ_PER_SEC P99_US", and the errors wrk saw.
measure() {
    local url=$1 connections=$2 t=$threads out
    ((t > connections)) && t=$connections
    out=$(wrk -t"$t" -c"$connections" -d"$duration" --latency "$url")
    if grep -qE 'Non-2xx|Socket errors' <<<"$out"; then
        grep -E 'Non-2xx|Socket errors' <<<"$out" | sed "s|^|  $url c=$connections: |" >&2
    fi
    local rps p99
    rps=$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")
    p99=$(awk '$1 == "99%" {print $2}' <<<"$out")
    echo "$rps $(to_us "$p99")"
}

echo "qkd at $qkd_address, nginx $(nginx -v 2>&1 | sed 's|.*/||') at 127.0.0.1:$nginx_port;" \
    "GET $path ($(wc -c <"$work/www/fp") bytes), wrk -d$duration, up to $threads threads"
printf '%-11s %12s %12s %9s %11s %11s %13s\n' connections "qk req/s" "nginx req/s" "qk/nginx" \
    "qk p99 us" "nginx p99" "p99 nginx/qk"
for connections in 1 16 64; do
    read -r q_rps q_p99 < <(measure "http://$qkd_address$path" "$connections")
    read -r n_rps n_p99 < <(measure "http://127.0.0.1:$nginx_port$path" "$connections")
    awk -v c="$connections" -v qr="$q_rps" -v nr="$n_rps" -v qp="$q_p99" -v np="$n_p99" 'BEGIN {
        printf "%-11s %12.0f %12.0f %9.2f %11d %11d %13.2f\n", c, qr, nr, qr / nr, qp, np, np / qp }'
done

if [[ -x $qkbench ]]; then
    echo
    echo "native protocol, one connection (qkbench --benchmark_filter=^server/):"
    "$qkbench" --benchmark_filter='^server/' --benchmark_min_time=1
fi
