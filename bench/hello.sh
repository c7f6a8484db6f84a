#!/bin/sh
# Measures the example's hello servlet with wrk on loopback, then nginx serving a tiny
# static file the same way, and prints requests/s, p99 latency and the ratio of the two.
#
#   sh bench/hello.sh [seconds, default 10] [connections, default 64] [threads, default 2]
#
# Installs wrk and nginx (Debian packages) when they are missing, which needs root. Builds
# the release tree and runs the server from a copy of its example home on a free port.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:-10}
connections=${2:-64}
threads=${3:-2}

need=""
command -v wrk >/dev/null 2>&1 || need="$need wrk"
command -v nginx >/dev/null 2>&1 || [ -x /usr/sbin/nginx ] || need="$need nginx-light"
if [ -n "$need" ]; then
        if [ "$(id -u)" -ne 0 ]; then
                echo "bench: missing$need -- run as root to install them" >&2
                exit 1
        fi
        echo "bench: installing$need"
        DEBIAN_FRONTEND=noninteractive apt-get update -qq
        # shellcheck disable=SC2086
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $need >/dev/null
fi
nginx=$(command -v nginx || echo /usr/sbin/nginx)

sh scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc 2>/dev/null || echo 2)" >/dev/null

work=$(mktemp -d /tmp/vesk-bench-XXXXXX)
vesk_pid=""
nginx_pid=""
cleanup() {
        [ -n "$vesk_pid" ] && kill "$vesk_pid" 2>/dev/null && wait "$vesk_pid" 2>/dev/null
        [ -n "$nginx_pid" ] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
        rm -rf "$work"
}
trap cleanup EXIT INT TERM

# A port nobody listens on, from the kernel's ephemeral range.
free_port() {
        python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# Waits until something answers HTTP on port; fails after 10 seconds.
wait_port() {
        i=0
        until python3 -c "import socket,sys; socket.create_connection(('127.0.0.1', $1), 0.2)" 2>/dev/null; do
                i=$((i + 1))
                if [ $i -ge 100 ]; then
                        echo "bench: nothing listens on port $1" >&2
                        exit 1
                fi
                sleep 0.1
        done
}

# Runs wrk against url; prints "requests/s p99-in-ms".
measure() {
        wrk -t"$threads" -c"$connections" -d"${seconds}s" --latency "$1" >"$work/wrk.txt"
        awk '
                /Requests\/sec:/ { rps = $2 }
                $1 == "99%" { v = $2; unit = v; sub(/[0-9.]+/, "", unit); sub(/[a-z]+$/, "", v);
                              ms = (unit == "us") ? v / 1000 : (unit == "s") ? v * 1000 : v }
                END { printf "%s %.2f\n", rps, ms }' "$work/wrk.txt"
}

# Vesk on a copy of the example home, its connector moved to a free port, without the
# per-request access log line that nginx is spared below as well.
vesk_port=$(free_port)
cp -r build/release/examples/home "$work/home"
sed -i -e "s/port=\"8080\"/port=\"$vesk_port\"/" -e '/<Accesslogger/d' "$work/home/conf/server.xml"
build/release/launcher/vesk -H "$work/home" -f start >"$work/vesk.log" 2>&1 &
vesk_pid=$!
wait_port "$vesk_port"

# nginx serving the same greeting as a static file.
nginx_port=$(free_port)
mkdir -p "$work/nginx/html" "$work/nginx/logs"
printf '<p>Hello, bench!</p>\n' >"$work/nginx/html/hello.html"
cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
worker_processes $threads;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 1024; }
http {
        access_log off;
        server {
                listen 127.0.0.1:$nginx_port;
                root $work/nginx/html;
        }
}
EOF
"$nginx" -p "$work/nginx" -c "$work/nginx/nginx.conf" 2>"$work/nginx/stderr" &
nginx_pid=$!
wait_port "$nginx_port"

echo "wrk: $threads threads, $connections connections, $seconds s each, on 127.0.0.1"
set -- $(measure "http://127.0.0.1:$vesk_port/demo/hello?name=bench")
vesk_rps=$1
vesk_p99=$2
set -- $(measure "http://127.0.0.1:$nginx_port/hello.html")
nginx_rps=$1
nginx_p99=$2
printf '%-28s %12s %10s\n' "" "requests/s" "p99 ms"
printf '%-28s %12s %10s\n' "vesk /demo/hello (servlet)" "$vesk_rps" "$vesk_p99"
printf '%-28s %12s %10s\n' "nginx /hello.html (static)" "$nginx_rps" "$nginx_p99"
awk -v v="$vesk_rps" -v n="$nginx_rps" 'BEGIN { if (n > 0) printf "vesk / nginx: %.2f of the requests/s\n", v / n }'
